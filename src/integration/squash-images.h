#pragma once

#include <jansson.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"
#include "store/velkctl-store.h"

/*
 * The squash-file-system images of an application. They lie in its own area, and so do the directories that
 * they are mounted on: root's mount would go wherever a link leads that the application puts there at the
 * right moment. So while an application is set up, each image, each mount point and every directory between
 * them and the application directory is immutable: none of these names can then mean anything else.
 */

/** An image and where it is mounted, both below the application directory: no dots, no leading "/". */
struct SquashImage {
    std::string image;
    std::string mount_point;
};

/**
 * The images that the manifest names, each of which must be there, inside the application's files.
 *
 * @param error  code 29, also for what cannot be fixed: control files, what lies below another mount point or
 * where the device or the application itself has to write
 */
[[nodiscard]] std::optional<std::vector<SquashImage>> read_squash_images(const json_t* manifest,
                                                                         const std::string& app,
                                                                         const StoreLocation* location,
                                                                         VelkctlError** error);

/**
 * The mount points that the manifest names, by their text alone: what setup may have made units of. What does
 * not name one is left out.
 */
[[nodiscard]] std::vector<std::string> named_mount_points(const json_t* manifest);

/**
 * On the first card, before the overlay is mounted: fix what lies in the layer of the package. The overlay
 * shows the attribute; set through the overlay instead it would copy each image. What cannot be fixed is left
 * for fix_squash_images to find.
 */
void fix_squash_images_in_package(const json_t* manifest, const std::string& app,
                                  const StoreLocation* location, uid_t uid);

/**
 * Fix the images and their mount points, and look whether they are what may be mounted: no link on the way,
 * and each file the application's own or root's, under no other name. The application's directory must stand
 * in its place.
 *
 * @param uid    the application's user, who owns its files
 * @param error  code 29 for what may not be mounted, code 10 for what cannot be fixed; what was fixed by this
 * call is then released, other than what a crash may leave for release_squash_images
 */
[[nodiscard]] bool fix_squash_images(const std::vector<SquashImage>& images, const std::string& app,
                                     const StoreLocation* location, uid_t uid, VelkctlError** error);

/**
 * Release what the two above have fixed for the images of the manifest. The control files stay as they are,
 * and so does a file that has another name. A failure is a warning.
 */
void release_squash_images(const json_t* manifest, const std::string& app, const StoreLocation* location);
