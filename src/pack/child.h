#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "base/handles.h"
#include "base/velkctl-error.h"

/**
 * A program that is fed through its standard input while it works; what it says is kept until its end.
 * `%signature%` among the arguments is replaced by a path under which it can read the text that was handed
 * over for that.
 */
class Child {
  public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    /**
     * Start a program found on the PATH. Its messages are in English whatever the user's language.
     *
     * @param signature  the text for `%signature%`, which needs no file; null when there is none
     * @param error      code 10 "PROGRAM: cannot be started: %s"
     */
    [[nodiscard]] bool start(const std::vector<std::string>& arguments, const std::string* signature,
                             VelkctlError** error);

    /** Give it more input. What a program does not want that has ended already is dropped. */
    void feed(std::string_view data);

    /** End the input and wait; the exit status, -1 for a signal or when it cannot be known. */
    [[nodiscard]] int wait();

    /** What it wrote to its standard output and standard error, after `wait`. */
    [[nodiscard]] const std::string& output() const { return output_text_; }
    [[nodiscard]] const std::string& errors() const { return error_text_; }

  private:
    pid_t pid_ = 0;
    UniqueFd input_;
    UniqueFd output_;
    UniqueFd errors_;
    std::string output_text_;
    std::string error_text_;
};

/** The last line of a program's words that says something, for a one-line error; without the program's own
 * name in front. */
[[nodiscard]] std::string last_words(const std::string& text);
