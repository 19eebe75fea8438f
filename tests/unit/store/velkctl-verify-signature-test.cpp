#include "store/velkctl-verify-signature.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>

#include "store/package-trailer.h"
#include "support.h"

using OptionalPath = std::optional<std::string>;

/*
 * Which signatures are good is tested on a device, with its keyring; here is what callers are given besides.
 */

TEST(VerifySignature, NamesTheArgumentThatIsMissing) {
    const std::string function = "10 velkctl_split_package_verify_signature: Invalid argument: ";
    ErrorSlot error;
    EXPECT_EQ(verify_package_signature(nullptr, error), -1);
    EXPECT_EQ(test::describe(error), function + "path is NULL");
}

TEST(VerifySignature, LeavesAPathThatItWasGivenAlone) {
    const std::string function = "10 velkctl_split_package_verify_signature: Invalid argument: ";
    OptionalPath taken = "/some/file";
    OptionalPath free;
    ErrorSlot data;
    EXPECT_EQ(validate_signature_and_create_vsf(nullptr, "x.vlp", &taken, &free, CREATE_VSF_NO, data), -1);
    EXPECT_EQ(test::describe(data), function + "data is not NULL or pointer to NULL");
    ErrorSlot signature;
    EXPECT_EQ(validate_signature_and_create_vsf(nullptr, "x.vlp", &free, &taken, CREATE_VSF_NO, signature),
              -1);
    EXPECT_EQ(test::describe(signature), function + "signature is not NULL or pointer to NULL");
    EXPECT_EQ(taken, "/some/file");
    EXPECT_EQ(free, std::nullopt);
}

TEST(VerifySignatureDeathTest, NeedsANameToRecordAState) {
    EXPECT_DEATH(
        (void)validate_signature_and_create_vsf(nullptr, "x.vlp", nullptr, nullptr, CREATE_VSF, nullptr),
        "appname");
}

TEST(VerifySignature, HandsBothPartsOutAlsoWhenItRefusesThem) {
    const test::TemporaryDirectory directory;
    const std::string package = directory / "App.vlp";
    test::write_text(package,
                     "the data"
                     "no signature" +
                         encode_package_trailer(12));
    const auto verify = [&package] {
        OptionalPath data;
        OptionalPath signature;
        ErrorSlot error;
        const int result = validate_signature_and_create_vsf(nullptr, package.c_str(), &data, &signature,
                                                             CREATE_VSF_NO, error);
        // What gpgv says goes to standard output, where the device has one or not.
        std::fprintf(stderr, "%d %s\n%s\n%s\n", result, test::describe(error).c_str(),
                     test::read_text(data.value_or("")).c_str(),
                     test::read_text(signature.value_or("")).c_str());
        unlink(data.value_or("").c_str());
        unlink(signature.value_or("").c_str());
    };
    EXPECT_EQ(test::run_child(verify).errors,
              "-1 2 Bad signature, no valid OpenPGP data found\nthe data\nno signature\n");
}
