#pragma once

#include <cstdint>
#include <ctime>
#include <string>

/**
 * A bar on a terminal while something long is done, gone at the end of its scope; nothing at all where
 * standard error is no terminal.
 */
class ProgressBar {
  public:
    /** @param total  how much there is to do, in the unit of `advance` */
    ProgressBar(std::string label, uint64_t total);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    ~ProgressBar();

    /** So much more is done. */
    void advance(uint64_t amount);
    /** Never draw anything, for the rest of the process: what is printed is read by a machine. */
    static void silence();

  private:
    void draw(unsigned percent);

    std::string label_;
    uint64_t total_;
    uint64_t done_ = 0;
    unsigned shown_ = 101;  ///< no percentage
    bool on_terminal_;
};
