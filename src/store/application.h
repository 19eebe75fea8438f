#pragma once

#include <string>

#include "store/velkctl-store.h"

/**
 * An application of the store, and where it is. That is decided once, at the beginning of a command: a card
 * that comes or goes, or a directory that somebody makes, does not lead a later step elsewhere.
 */
struct Application {
    std::string name;
    const StoreLocation* location;  ///< null when it is nowhere; its card may be out

    /** Where it is reached, whatever its location: its entry in the store root. */
    [[nodiscard]] std::string directory() const { return paths::store_root_path(name); }
    /** What its location keeps of it. The location must be known (asserted). */
    [[nodiscard]] std::string home() const { return store_path(name, location); }
    /** Whether its files are there: its location is known and, when that is a card, in the slot. */
    [[nodiscard]] bool is_reachable() const;
    /**
     * The directory with its manifest and what else it was packed with, mounted or not; in the layer store
     * only the control files lie unpacked. Empty when it is not reachable.
     */
    [[nodiscard]] std::string packed_files() const;
};

/** The application of that name, at its recorded location or else where it is found. */
[[nodiscard]] Application find_application(const std::string& name);
