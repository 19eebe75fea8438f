#include "system/regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <map>
#include <memory>
#include <string>

#include "base/handles.h"

static std::string pcre2_text(int number) {
    PCRE2_UCHAR text[256];
    pcre2_get_error_message(number, text, sizeof text);
    return reinterpret_cast<const char*>(text);
}

// A text of many megabytes must not make the matcher take many times that.
static constexpr uint32_t kHeapLimitKiB = 16 * 1024;

/**
 * The pattern in the matcher's form, or null with the error set. Each is compiled once: compiling costs
 * several times a match, and the same few patterns are asked of every application of the store.
 */
static const pcre2_code* compiled(const char* pattern, VelkctlError** error) {
    static std::map<std::string, std::unique_ptr<pcre2_code, ReleaseWith<pcre2_code_free>>> known;
    auto& code = known[pattern];
    if (code)
        return code.get();
    int number = 0;
    PCRE2_SIZE offset = 0;
    code.reset(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED,
                             PCRE2_DOLLAR_ENDONLY, &number, &offset, nullptr));
    if (!code)
        SET_GENERAL_ERROR(error, "%s", pcre2_text(number).c_str());
    return code.get();
}

bool check_regex(const char* pattern, std::string_view subject, VelkctlError** error) {
    const pcre2_code* code = compiled(pattern, error);
    if (!code)
        return false;
    const std::unique_ptr<pcre2_match_data, ReleaseWith<pcre2_match_data_free>> match(
        pcre2_match_data_create(1, nullptr));
    const std::unique_ptr<pcre2_match_context, ReleaseWith<pcre2_match_context_free>> limits(
        pcre2_match_context_create(nullptr));
    pcre2_set_heap_limit(limits.get(), kHeapLimitKiB);
    const int result = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), 0, 0,
                                   match.get(), limits.get());
    if (result < 0 && result != PCRE2_ERROR_NOMATCH) {
        SET_GENERAL_ERROR(error, "%s", pcre2_text(result).c_str());
        return false;
    }
    return result >= 0;
}
