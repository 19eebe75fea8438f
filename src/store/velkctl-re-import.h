#pragma once

#include "base/velkctl-error.h"

/**
 * Link every application of the layer location into the store root, for a first boot with an empty root.
 *
 * @param error  required (asserted); code 10: the listing's own, with nothing linked, or "Failed re-importing
 * %s: %s" for the first application that failed; the others are linked all the same
 * @return 0, or -1 when anything failed
 */
[[nodiscard]] int velkctl_re_import_vlp_mount_symlinks(VelkctlError** error);
