#include "platform/dlpu.h"

#include <unistd.h>

#include "base/paths.h"

bool device_has_dlpu() { return access(paths::kDlpuMarker, F_OK) == 0; }
