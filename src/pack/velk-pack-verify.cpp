#include "pack/velk-pack-verify.h"

#include <glib.h>

#include <sstream>

#include "pack/child.h"
#include "pack/pack-error.h"
#include "pack/package-file.h"
#include "system/file.h"

static constexpr int kBadSignature = 1;

/** The text behind `start` up to the next of `ends`; empty when there is no such line. */
static std::string word_after(const std::string& text, const std::string& start, const char* ends = " ,)\n") {
    const size_t found = text.find(start);
    if (found == std::string::npos)
        return "";
    const size_t from = found + start.size();
    return text.substr(from, text.find_first_of(ends, from) - from);
}

static Signer signer_in_status(const std::string& status) {
    Signer signer;
    std::istringstream words(word_after(status, "[GNUPG:] VALIDSIG ", "\n"));
    std::string date;
    words >> signer.fingerprint >> date >> signer.time;
    const std::string good = word_after(status, "[GNUPG:] GOODSIG ", "\n");
    signer.user = good.substr(good.find(' ') + 1);
    return signer;
}

static bool check_keyring(const std::string& keyring, std::string* path, VelkctlError** error) {
    ErrorSlot unread;
    const std::optional<std::string> canonical = canonical_path(keyring, unread);
    const std::optional<std::string> keys = canonical ? read_file(*canonical, unread) : std::nullopt;
    if (!keys)
        return fail_with_system_error(error, keyring, "cannot be read");
    if (keys->starts_with("-----BEGIN"))
        return fail_with(error, VELKCTL_ERROR_GENERAL, keyring,
                         "is armoured, and devices read binary keyrings only (gpg --dearmor makes one)");
    *path = *canonical;
    return true;
}

bool velk_pack_verify(const std::string& path, const std::string& keyring, Signer* signer,
                      VelkctlError** error) {
    std::string keyring_path;
    if (!check_keyring(keyring, &keyring_path, error))
        return false;
    const std::optional<PackageFile> package = open_package_file(path, error);
    if (!package)
        return false;
    if (!package->signature)
        return fail_with(error, VELKCTL_ERROR_SIGNATURE, path, "is not signed");
    Child gpgv;
    if (!gpgv.start({"gpgv", "--ignore-time-conflict", "--status-fd=1", "--keyring", keyring_path,
                     "%signature%", "-"},
                    &*package->signature, error))
        return false;
    const auto feed = [&gpgv](std::string_view block) {
        gpgv.feed(block);
        return true;
    };
    if (!for_each_data_block(*package, "verifying", feed, error))
        return false;
    const int status = gpgv.wait();
    if (status == 0) {
        *signer = signer_in_status(gpgv.output());
        return true;
    }
    return fail_with(error, VELKCTL_ERROR_SIGNATURE, path,
                     (status == kBadSignature ? "the signature does not match: "
                                              : "no key of the keyring made the signature: ") +
                         last_words(gpgv.errors()));
}

Signer claimed_signer(const std::string& signature) {
    Child gpg;
    ErrorSlot not_started;
    // A home that does not exist keeps gpg from making one and from looking at anybody's keys. It ends with a
    // complaint about that, so its status says nothing.
    if (!gpg.start({"gpg", "--batch", "--homedir=/nonexistent", "--list-packets"}, nullptr, not_started))
        return {};
    gpg.feed(signature);
    (void)gpg.wait();
    const std::string& packets = gpg.output();
    Signer signer;
    signer.fingerprint = word_after(packets, "(issuer fpr v4 ");
    if (signer.fingerprint.empty())
        signer.fingerprint = word_after(packets, "keyid ");
    signer.time = g_ascii_strtoll(word_after(packets, " created ").c_str(), nullptr, 10);
    return signer;
}
