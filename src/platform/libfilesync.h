#pragma once

#include <glib.h>

#include <cstddef>

/** How hard a written file is pressed to the disk. */
enum FilesyncMode {
    FILESYNC_NONE = 0,  ///< leave it to the kernel
    FILESYNC_FULL = 1,  ///< the content before the rename, the directory after it
};

/** What the temporary file beside the target is called; each X stands for a letter or digit. */
inline constexpr const char* FILESYNC_TEMPORARY = ".filesync-XXXXXX";

/**
 * Replace the file at `path` by `length` bytes of `contents`: a reader sees the old file or the new one,
 * never a part, also after a power cut. A link at `path` is replaced, never written through. The library's
 * own temporary file lies beside the target and is gone after success and after failure.
 *
 * @param mode   permission bits, exact whatever the process's umask
 * @param error  GLib's file error with the system's text; the old file is then untouched
 */
bool filesync_set_file_contents_with_sync_mode(const char* path, const char* contents, size_t length,
                                               FilesyncMode sync, int mode, GError** error);
