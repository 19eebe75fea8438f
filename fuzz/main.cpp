#include <cstddef>
#include <cstdint>

#include "base/log.h"
#include "fuzz/targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool is_quiet = (log_setup(LOG_MODE_NULL), true);
    if (is_quiet)
        FUZZ_TARGET({reinterpret_cast<const char*>(data), size});
    return 0;
}
