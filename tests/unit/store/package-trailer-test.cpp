#include "store/package-trailer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "base/handles.h"
#include "support.h"
#include "system/archive.h"

namespace {

std::string big_endian(uint32_t number) {
    std::string bytes;
    for (const int shift : {24, 16, 8, 0})
        bytes += static_cast<char>(number >> shift & 0xFF);
    return bytes;
}

const std::string kMagic = "\x65\x8D\x14\xAB\x42\x07\xAA\xC6";

std::string trailer_of(uint32_t signature_size, uint32_t version = 1) {
    return big_endian(signature_size) + big_endian(version) + kMagic;
}

/** A package in a file of a temporary directory, open for reading. */
class PackageTest : public testing::Test {
  protected:
    std::FILE* open_package(const std::string& bytes) {
        path_ = directory_ / "App.vlp";
        test::write_text(path_, bytes);
        package_.reset(std::fopen(path_.c_str(), "rb"));
        return package_.get();
    }
    std::string kind_of(const std::string& bytes) {
        ErrorSlot error;
        bool is_signed = false;
        if (!read_package_kind(open_package(bytes), "App.vlp", &is_signed, error))
            return test::describe(error);
        return is_signed ? "signed" : "unsigned";
    }
    std::string trailer_in(const std::string& bytes) {
        ErrorSlot error;
        PackageTrailer trailer{};
        if (!read_package_trailer(open_package(bytes), &trailer, error))
            return test::describe(error);
        return "signature of " + std::to_string(trailer.signature_size);
    }
    std::vector<std::string> tree() const { return test::tree_of(directory_.path()); }

    test::TemporaryDirectory directory_;
    std::string path_;
    FilePtr package_;
};

}  // namespace

TEST_F(PackageTest, BelowSixteenBytesIsTooSmall) {
    EXPECT_EQ(kind_of(""), "1 Package size 0 for App.vlp is too small");
    EXPECT_EQ(kind_of(std::string(15, 'x')), "1 Package size 15 for App.vlp is too small");
    EXPECT_EQ(kind_of(trailer_of(1).substr(1)), "1 Package size 15 for App.vlp is too small");
}

TEST_F(PackageTest, WithoutTheMagicIsUnsigned) {
    EXPECT_EQ(kind_of(std::string(16, 'x')), "unsigned");
    EXPECT_EQ(kind_of("data" + trailer_of(4) + "\n"), "unsigned");
    for (size_t place = 8; place < 16; place++) {
        std::string bytes = trailer_of(1);
        bytes[place] = static_cast<char>(bytes[place] ^ 1);
        EXPECT_EQ(kind_of("data" + bytes), "unsigned");
    }
}

TEST_F(PackageTest, WithTheMagicIsSigned) {
    EXPECT_EQ(kind_of(trailer_of(0, 7)), "signed");
    EXPECT_EQ(kind_of("data"
                      "signature" +
                      trailer_of(9)),
              "signed");
}

TEST_F(PackageTest, ThatCannotBeSoughtOrReadIsRefused) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const UniqueFd writing(ends[1]);
    const FilePtr pipe_end(fdopen(ends[0], "rb"));
    ErrorSlot seeking;
    bool is_signed = true;
    EXPECT_FALSE(read_package_kind(pipe_end.get(), "pipe", &is_signed, seeking));
    EXPECT_EQ(test::describe(seeking), "1 fseek(SEEK_END) failed: Illegal seek");

    const FilePtr write_only(std::fopen((directory_ / "out").c_str(), "wb"));
    std::fputs("more than sixteen bytes", write_only.get());
    ErrorSlot reading;
    EXPECT_FALSE(read_package_kind(write_only.get(), "out", &is_signed, reading));
    EXPECT_EQ(test::describe(reading), "2 Failed reading 8B for the magic: Bad file descriptor");
    EXPECT_TRUE(is_signed);
}

TEST_F(PackageTest, TrailerGivesTheSignatureSize) {
    EXPECT_EQ(trailer_in("data"
                         "sig" +
                         trailer_of(3)),
              "signature of 3");
    EXPECT_EQ(trailer_in("sig" + trailer_of(3)), "signature of 3");
}

TEST_F(PackageTest, WithoutASignatureIsRefusedBeforeItsVersion) {
    EXPECT_EQ(trailer_in("data" + trailer_of(0)), "2 Invalid package, missing signature");
    EXPECT_EQ(trailer_in("data" + trailer_of(0, 2)), "2 Invalid package, missing signature");
}

TEST_F(PackageTest, OfAnotherVersionIsRefused) {
    for (const uint32_t version : {0U, 2U, 0x01000000U, 0xFFFFFFFFU})
        EXPECT_EQ(trailer_in("data"
                             "sig" +
                             trailer_of(3, version)),
                  "2 Invalid signature, incorrect package version");
}

TEST_F(PackageTest, WhoseMagicIsGoneOnTheSecondLookIsRefused) {
    std::string bytes =
        "data"
        "sig" +
        trailer_of(3);
    bytes.back() = 'x';
    EXPECT_EQ(trailer_in(bytes), "2 Invalid signature, incorrect magic");
    bytes =
        "data"
        "sig" +
        trailer_of(3, 2);
    bytes.back() = 'x';
    EXPECT_EQ(trailer_in(bytes), "2 Invalid signature, incorrect magic, incorrect package version");
}

TEST_F(PackageTest, SignatureMustLieInsideTheFile) {
    EXPECT_EQ(trailer_in("1234567" + trailer_of(7)), "signature of 7");
    EXPECT_EQ(trailer_in("1234567" + trailer_of(8)), "2 Signature size outside file boundary: 8B > 7B");
    EXPECT_EQ(trailer_in("1234567" + trailer_of(0xFFFFFFFF)),
              "2 Signature size outside file boundary: 4294967295B > 7B");
}

TEST_F(PackageTest, CutShorterThanATrailerIsRefused) {
    EXPECT_EQ(trailer_in("x"), "2 Failed seeking -12B from EOF: Invalid argument");
    EXPECT_EQ(trailer_in(std::string(13, 'x')), "2 Failed seeking -16B from EOF: Invalid argument");
}

TEST_F(PackageTest, OfTwoTrailersTheLastOneCounts) {
    const std::string inner =
        "data"
        "sig" +
        trailer_of(3);
    EXPECT_EQ(trailer_in(inner + "longer" + trailer_of(6)), "signature of 6");
}

TEST_F(PackageTest, IsSplitIntoSignatureAndData) {
    SKIP_UNLESS_ROOT();
    const std::string template_ = directory_ / "x_XXXXXX.end";
    for (const size_t length :
         {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{300000}}) {
        std::string data(length, 'd');
        for (size_t i = 0; i < length; i++)
            data[i] = static_cast<char>(i * 31 >> 3);
        std::FILE* package = open_package(data + "the signature" + trailer_of(13));
        ErrorSlot error;
        std::string signature_path;
        std::string data_path;
        ASSERT_TRUE(
            copy_package_signature(package, {13, 1, PACKAGE_MAGIC}, template_, &signature_path, error));
        ASSERT_TRUE(copy_package_data(package, {13, 1, PACKAGE_MAGIC}, path_, template_, &data_path, error));
        EXPECT_EQ(test::read_text(signature_path), "the signature");
        EXPECT_EQ(test::mode_of(signature_path), 0600U);
        EXPECT_EQ(test::read_text(data_path), data);
        // The sticky bit tells that somebody works with it still.
        EXPECT_EQ(test::mode_of(data_path), 01644U);
        unlink(signature_path.c_str());
        unlink(data_path.c_str());
    }
    EXPECT_EQ(tree(), std::vector<std::string>{"App.vlp"});
}

TEST_F(PackageTest, FilesGetRandomNamesThatKeepTheirEnding) {
    std::FILE* package = open_package("datasig" + trailer_of(3));
    ErrorSlot error;
    std::string made;
    ASSERT_TRUE(
        copy_package_data(package, {3, 1, PACKAGE_MAGIC}, path_, directory_ / "v_XXXXXX.vlp", &made, error));
    EXPECT_NE(made, directory_ / "v_XXXXXX.vlp");
    EXPECT_EQ(made.size(), (directory_ / "v_XXXXXX.vlp").size());
    EXPECT_TRUE(made.ends_with(".vlp"));
}

TEST_F(PackageTest, FilesThatCannotBeMadeAreErrors) {
    std::FILE* package = open_package("datasig" + trailer_of(3));
    const std::string nowhere = directory_ / "absent/v_XXXXXX.sig";
    std::string made = "untouched";
    ErrorSlot signature;
    EXPECT_FALSE(copy_package_signature(package, {3, 1, PACKAGE_MAGIC}, nowhere, &made, signature));
    EXPECT_EQ(test::describe(signature), "10 src/store/package-trailer.cpp:N: Failed opening file: " +
                                             nowhere + ": No such file or directory");
    ErrorSlot data;
    EXPECT_FALSE(copy_package_data(package, {3, 1, PACKAGE_MAGIC}, path_, nowhere, &made, data));
    EXPECT_EQ(test::describe(data), "10 src/store/package-trailer.cpp:N: Failed creating file: " + nowhere +
                                        ": No such file or directory");
    EXPECT_EQ(made, "untouched");
}

TEST_F(PackageTest, SignatureAboveTheLargestIsRefusedAndNothingWritten) {
    std::FILE* package = open_package("data" + trailer_of(1));
    ErrorSlot error;
    std::string made;
    EXPECT_FALSE(copy_package_signature(package, {0x7FFFFFF1, 1, PACKAGE_MAGIC}, directory_ / "v_XXXXXX.sig",
                                        &made, error));
    EXPECT_EQ(test::describe(error), "2 Signature size too large: 2147483633B > 2147483632B");
    EXPECT_EQ(tree(), std::vector<std::string>{"App.vlp"});
}

TEST_F(PackageTest, SignatureThatTheFileNoLongerHoldsIsRefused) {
    std::FILE* package = open_package("datasig" + trailer_of(3));
    ErrorSlot error;
    std::string made;
    EXPECT_FALSE(
        copy_package_signature(package, {100, 1, PACKAGE_MAGIC}, directory_ / "v_XXXXXX.sig", &made, error));
    EXPECT_EQ(test::describe(error), "2 Failed seeking 116B from EOF: Invalid argument");
}

TEST_F(PackageTest, SignatureThatCannotBeReadIsRefusedAndItsFileTold) {
    test::write_text(directory_ / "out", "data" + std::string(5000, 's') + trailer_of(5000));
    const FilePtr write_only(std::fopen((directory_ / "out").c_str(), "ab"));
    ErrorSlot error;
    std::string made;
    EXPECT_FALSE(copy_package_signature(write_only.get(), {5000, 1, PACKAGE_MAGIC},
                                        directory_ / "v_XXXXXX.sig", &made, error));
    EXPECT_EQ(test::describe(error), "2 Failed reading 5000B for signature: Bad file descriptor");
    // It is for the caller to hand out or to delete.
    EXPECT_EQ(test::read_text(made), "");
    EXPECT_EQ(tree(), (std::vector<std::string>{"out", made.substr(directory_.path().size() + 1)}));
}

TEST_F(PackageTest, DataPartIsLimitedToTwoGibibytes) {
    const std::string template_ = directory_ / "v_XXXXXX.vlp";
    const std::string too_large = "2 Can not read past beginning of file, signature size is too large";
    for (const off_t data_size : {off_t{1} << 31, off_t{1} << 32, (off_t{1} << 32) + 100}) {
        std::FILE* package = open_package("");
        ASSERT_EQ(truncate(path_.c_str(), data_size + 3 + 16), 0);
        ErrorSlot error;
        std::string made;
        EXPECT_FALSE(copy_package_data(package, {3, 1, PACKAGE_MAGIC}, path_, template_, &made, error));
        EXPECT_EQ(test::describe(error), too_large);
    }
    std::FILE* package = open_package("datasig" + trailer_of(3));
    ErrorSlot error;
    std::string made;
    EXPECT_FALSE(copy_package_data(package, {8, 1, PACKAGE_MAGIC}, path_, template_, &made, error));
    EXPECT_EQ(test::describe(error), too_large);
    EXPECT_EQ(tree(), std::vector<std::string>{"App.vlp"});
}

TEST_F(PackageTest, DataThatCannotBeWrittenLeavesNoFile) {
    const std::string bytes(300000, 'd');
    test::write_text(directory_ / "App.vlp", bytes + "sig" + trailer_of(3));
    // The limit stands for a full disk; it holds for the rest of a process, so a child has it.
    const auto copy_with_limit = [this](rlim_t limit) {
        return test::run_child([this, limit] {
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit size{limit, limit};
            setrlimit(RLIMIT_FSIZE, &size);
            const FilePtr package(std::fopen((directory_ / "App.vlp").c_str(), "rb"));
            ErrorSlot error;
            std::string made;
            const bool copied =
                copy_package_data(package.get(), {3, 1, PACKAGE_MAGIC}, directory_ / "App.vlp",
                                  directory_ / "v_XXXXXX.vlp", &made, error);
            std::fputs(copied ? "copied" : test::describe(error).c_str(), stdout);
            std::fflush(stdout);
        });
    };
    const std::string prefix = "10 src/store/package-trailer.cpp:N: Failed writing ";
    const std::string in_the_middle = copy_with_limit(200000).output;
    EXPECT_TRUE(in_the_middle.starts_with(prefix + "4096B to file: " + directory_ / "v_")) << in_the_middle;
    EXPECT_TRUE(in_the_middle.ends_with(".vlp: File too large")) << in_the_middle;
    const std::string at_the_end = copy_with_limit(299999).output;
    EXPECT_TRUE(at_the_end.starts_with(prefix + "992B to file: " + directory_ / "v_")) << at_the_end;
    EXPECT_EQ(copy_with_limit(300000).output, "copied");
    EXPECT_EQ(tree().size(), 2U);
}

TEST(PackageTrailerBytes, AreBigEndianAndReadBackAsWritten) {
    EXPECT_EQ(encode_package_trailer(0x01020304), trailer_of(0x01020304));
    const PackageTrailer trailer = decode_package_trailer(trailer_of(0xFFFFFFFE, 7));
    EXPECT_EQ(trailer.signature_size, 0xFFFFFFFE);
    EXPECT_EQ(trailer.version, 7U);
    EXPECT_EQ(trailer.magic, PACKAGE_MAGIC);
}
