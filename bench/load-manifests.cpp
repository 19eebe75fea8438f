// load-manifests STORE
//
// Read the manifest of every directory of a store with the JSON library and nothing else: what answering a
// question about all applications takes at the least.

#include <cstdio>
#include <string>

#include "base/handles.h"

int main(int argc, char** argv) {
    const DirectoryPtr store(argc == 2 ? opendir(argv[1]) : nullptr);
    if (!store)
        return 2;
    size_t count = 0;
    while (const dirent* entry = readdir(store.get())) {
        const std::string path = std::string(argv[1]) + "/" + entry->d_name + "/manifest.json";
        count += JsonPtr(json_load_file(path.c_str(), 0, nullptr)) != nullptr;
    }
    std::printf("%zu\n", count);
    return 0;
}
