#pragma once

/** Whether the device has a deep-learning processor. The built-in answer is whether its feature marker
 * exists. */
bool device_has_dlpu();
