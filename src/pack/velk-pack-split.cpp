#include "pack/velk-pack-split.h"

#include "pack/new-folder.h"
#include "pack/output-file.h"
#include "pack/package-file.h"

bool velk_pack_split(const std::string& path, const std::string& folder, VelkctlError** error) {
    const std::optional<PackageFile> package = open_package_file(path, error);
    NewFolder parts;
    if (!package || !parts.create(folder, error))
        return false;
    OutputFile archive;
    bool is_first = true;
    const auto copy = [&](std::string_view block) {
        const char* name = begins_as_gzip(block) ? "archive.tar.gz" : "archive.tar";
        if (is_first && !archive.create(parts.file(name), error))
            return false;
        is_first = false;
        return archive.write(block, error);
    };
    return for_each_data_block(*package, "splitting", copy, error) && archive.keep(error) &&
           (!package->signature || parts.add_file("signature.asc", *package->signature, false, error)) &&
           parts.keep(error);
}
