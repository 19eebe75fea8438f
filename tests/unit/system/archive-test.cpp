#include "system/archive.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "support.h"

using test::describe;
using testing::StartsWith;

namespace fs = std::filesystem;

static const std::string kManifest = "{ \"name\": \"App\" }\n";
/** What stands behind a signed package's archive: a signature, its size, the version and the magic. */
static const std::string kSignature = "\x88\x5e\x04 not really a signature";
static const std::string kTrailer =
    std::string("\0\0\0\x1a\0\0\0\x01", 8) + "\x65\x8d\x14\xab\x42\x07\xaa\xc6";

class Archive : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directory(directory / "app");
        test::write_text(directory / "app/manifest.json", kManifest);
        test::write_text(directory / "app/other", "other");
    }

    /** Pack files of the application's directory; `options` and names as tar takes them. */
    std::string pack(const std::string& options, const std::string& names) {
        const std::string archive = directory / "package.vlp";
        test::shell("tar -C '" + (directory / "app") + "' " + options + " -cf '" + archive + "' " + names);
        return archive;
    }

    static void append(const std::string& path, const std::string& bytes) {
        test::write_text(path, test::read_text(path) + bytes);
    }

    test::TemporaryDirectory directory;
    ErrorSlot error;
};

TEST_F(Archive, GivesAMember) {
    EXPECT_EQ(read_tar_member(pack("", "manifest.json other"), "manifest.json", error), kManifest);
    EXPECT_EQ(read_tar_member(pack("", "manifest.json other"), "other", error), "other");
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Archive, GivesAMemberThatIsStoredBehindADot) {
    const test::ChildResult result = test::run_child([this] {
        const std::optional<std::string> text =
            read_tar_member(pack("", "./manifest.json"), "manifest.json", error);
        std::fprintf(stdout, "%s", text ? text->c_str() : error.message());
    });
    EXPECT_EQ(result.output, kManifest);
    EXPECT_EQ(result.errors, "");
}

TEST_F(Archive, GivesAMemberOfACompressedArchive) {
    EXPECT_EQ(read_tar_member(pack("-z", "./manifest.json"), "manifest.json", error), kManifest);
    EXPECT_EQ(read_tar_member(pack("-z", "manifest.json"), "manifest.json", error), kManifest);
}

TEST_F(Archive, GivesAMemberOfASignedPackageWithoutNoise) {
    for (const char* options : {"", "-z"})
        for (const char* name : {"manifest.json", "./manifest.json"}) {
            const std::string archive = pack(options, name);
            append(archive, kSignature + kTrailer);
            const test::ChildResult result = test::run_child([&] {
                const std::optional<std::string> text = read_tar_member(archive, "manifest.json", error);
                std::fprintf(stdout, "%s", text ? text->c_str() : error.message());
            });
            EXPECT_EQ(result.output, kManifest) << options << name;
            EXPECT_EQ(result.errors, "") << options << name;
        }
}

TEST_F(Archive, WithGarbageThatIsNoSignatureIsInvalid) {
    const std::string archive = pack("-z", "manifest.json");
    append(archive, kSignature + "garbage");
    EXPECT_FALSE(read_tar_member(archive, "manifest.json", error));
    EXPECT_EQ(describe(error), "1 Invalid application package");
}

TEST_F(Archive, WithoutTheMemberIsInvalid) {
    for (const char* options : {"", "-z"}) {
        ErrorSlot reason;
        EXPECT_FALSE(read_tar_member(pack(options, "other"), "manifest.json", reason));
        EXPECT_EQ(describe(reason), "1 Invalid application package");
    }
}

TEST_F(Archive, ThatIsSignedAndLacksTheMemberIsInvalid) {
    const std::string archive = pack("-z", "other");
    append(archive, kSignature + kTrailer);
    EXPECT_FALSE(read_tar_member(archive, "manifest.json", error));
    EXPECT_EQ(describe(error), "1 Invalid application package");
}

TEST_F(Archive, ThatIsNoArchiveIsInvalid) {
    test::write_text(directory / "text", "this is no archive at all, but long enough\n");
    test::write_text(directory / "empty", "");
    for (const char* name : {"text", "empty", "absent"}) {
        ErrorSlot reason;
        EXPECT_FALSE(read_tar_member(directory / name, "manifest.json", reason)) << name;
        EXPECT_EQ(describe(reason), "1 Invalid application package") << name;
    }
    EXPECT_FALSE(read_tar_member(directory / "absent", "manifest.json", nullptr));
}

TEST_F(Archive, ThatIsTruncatedIsInvalid) {
    const std::string archive = pack("-z", "manifest.json other");
    ASSERT_EQ(truncate(archive.c_str(), static_cast<off_t>(fs::file_size(archive)) / 2), 0);
    EXPECT_FALSE(read_tar_member(archive, "manifest.json", error));
    EXPECT_EQ(describe(error), "1 Invalid application package");
}

// The path goes to tar as it is: no shell looks at it.
TEST_F(Archive, MayHaveAnyName) {
    const std::string odd = directory / "a 'b' $(c);..vlp";
    fs::rename(pack("", "./manifest.json"), odd);
    EXPECT_EQ(read_tar_member(odd, "manifest.json", error), kManifest) << error.message();
}

TEST_F(Archive, WithAnEmptyMemberGivesNothingInIt) {
    test::write_text(directory / "app/empty", "");
    EXPECT_EQ(read_tar_member(pack("", "empty"), "empty", error), "");
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Archive, KeepsZeroBytesOfAMember) {
    const std::string bytes("a\0b\n\0", 5);
    test::write_text(directory / "app/zeros", bytes);
    EXPECT_EQ(read_tar_member(pack("", "zeros"), "zeros", error), bytes);
}

TEST_F(Archive, GivesAMemberLargerThanAPipeHolds) {
    const std::string text(300'000, 'x');
    test::write_text(directory / "app/large", text);
    EXPECT_EQ(read_tar_member(pack("", "large"), "large", error), text);
}

TEST_F(Archive, WithAMemberThatWouldFillTheMemoryIsInvalid) {
    test::write_text(directory / "app/bomb", "");
    ASSERT_EQ(truncate((directory / "app/bomb").c_str(), 64 << 20), 0);
    EXPECT_FALSE(read_tar_member(pack("-z", "bomb"), "bomb", error));
    EXPECT_EQ(describe(error), "1 Invalid application package");
}

TEST_F(Archive, CannotBeReadWithoutTar) {
    const std::string archive = pack("", "manifest.json");
    const test::ScopedVariable path("PATH", directory.path());
    EXPECT_FALSE(read_tar_member(archive, "manifest.json", error));
    EXPECT_THAT(describe(error),
                StartsWith("10 src/system/archive.cpp:N: Failed spawning a child process: "));
    EXPECT_THAT(error.message(), testing::HasSubstr("tar"));
}

TEST_F(Archive, ThatIsADirectoryIsReadAsAnUnpackedApplication) {
    EXPECT_EQ(read_tar_member(directory / "app", "manifest.json", error), kManifest);
    EXPECT_FALSE(read_tar_member(directory / "app", "absent", error));
    EXPECT_EQ(describe(error), "10 src/system/file.cpp:N: Failed opening " + (directory / "app/absent") +
                                   ": No such file or directory");
}

TEST_F(Archive, KnowsAPackageThatEndsInTheMagic) {
    test::write_text(directory / "magic", kTrailer.substr(8));
    EXPECT_TRUE(has_package_magic(directory / "magic"));
    test::write_text(directory / "signed", "data" + kTrailer);
    EXPECT_TRUE(has_package_magic(directory / "signed"));
}

TEST_F(Archive, KnowsNoMagicElsewhere) {
    test::write_text(directory / "short", kTrailer.substr(9));
    test::write_text(directory / "behind", kTrailer + "x");
    test::write_text(directory / "empty", "");
    for (const char* name : {"short", "behind", "empty", "absent", "app"})
        EXPECT_FALSE(has_package_magic(directory / name)) << name;
}

TEST_F(Archive, TellsTheSizeOfASingleGzipStream) {
    const uint64_t size = fs::file_size(pack("", "manifest.json"));
    EXPECT_EQ(single_gzip_size(pack("-z", "manifest.json")), size);
    test::write_text(directory / "app/large", std::string(1 << 20, 'x'));
    const uint64_t large = fs::file_size(pack("", "large"));
    EXPECT_EQ(single_gzip_size(pack("-z", "large")), large);
}

TEST_F(Archive, TellsNoSingleSizeOfWhatIsMoreOrLess) {
    const std::string plain = test::read_text(pack("", "manifest.json"));
    const std::string stream = test::read_text(pack("-z", "manifest.json"));
    const std::string size = stream.substr(stream.size() - 4);
    for (const std::string& text :
         {plain, stream + "x", stream + std::string(512, '\0'), stream + "junk" + size, stream + stream,
          stream + kTrailer, stream.substr(0, stream.size() - 1), stream.substr(0, 20), std::string()}) {
        test::write_text(directory / "other", text);
        EXPECT_FALSE(single_gzip_size(directory / "other")) << text.size();
    }
    std::string wrong_sum = stream;
    wrong_sum[stream.size() - 8] ^= 1;
    test::write_text(directory / "other", wrong_sum);
    EXPECT_FALSE(single_gzip_size(directory / "other"));
    for (const char* name : {"absent", "app"})
        EXPECT_FALSE(single_gzip_size(directory / name)) << name;
}

TEST_F(Archive, IsUnpackedWithPigzWhereThatIsWanted) {
    ASSERT_FALSE(std::getenv("TAR_OPTIONS"));
    const std::string archive = pack("-z", "manifest.json");
    for (const auto& [wanted, program] : {std::pair(true, "/usr/bin/pigz"), std::pair(false, "gzip")}) {
        const TarGzip gzip(archive, wanted);
        EXPECT_EQ(std::getenv("TAR_OPTIONS"), std::string("--use-compress-program=") + program);
    }
    EXPECT_FALSE(std::getenv("TAR_OPTIONS"));
}

TEST_F(Archive, ThatIsPlainIsUnpackedAsItIs) {
    const std::string archive = pack("", "manifest.json");
    const test::ScopedVariable variable("TAR_OPTIONS", "--of-the-operator");
    {
        const TarGzip gzip(archive, true);
        EXPECT_STREQ(std::getenv("TAR_OPTIONS"), "");
    }
    EXPECT_STREQ(std::getenv("TAR_OPTIONS"), "--of-the-operator");
}

TEST_F(Archive, TellsItsUncompressedSize) {
    const uint64_t size = fs::file_size(pack("", "manifest.json other"));
    EXPECT_EQ(uncompressed_size(pack("", "manifest.json other"), error), size);
    EXPECT_EQ(uncompressed_size(pack("-z", "manifest.json other"), error), size);
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Archive, TellsItsUncompressedSizeWithoutTheSignature) {
    const uint64_t size = fs::file_size(pack("", "other"));
    const std::string archive = pack("-z", "other");
    append(archive, kSignature + kTrailer);
    EXPECT_EQ(uncompressed_size(archive, error), size) << error.message();
}

TEST_F(Archive, TellsThePlainSizeOfWhatIsNotCompressed) {
    test::write_text(directory / "plain", std::string(10'000, 'x'));
    EXPECT_EQ(uncompressed_size(directory / "plain", error), 10'000U);
    test::write_text(directory / "empty", "");
    EXPECT_EQ(uncompressed_size(directory / "empty", error), 0U);
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Archive, TellsSizesBeyondOneBlockExactly) {
    for (const size_t size : {1U, 4095U, 4096U, 4097U, 1'000'000U}) {
        test::write_text(directory / "data", std::string(size, 'x'));
        test::shell("gzip -f '" + (directory / "data") + "'");
        EXPECT_EQ(uncompressed_size(directory / "data.gz", error), size);
    }
}

TEST_F(Archive, ThatIsAbsentHasNoSize) {
    EXPECT_EQ(uncompressed_size(directory / "absent", error), 0U);
    EXPECT_EQ(describe(error),
              "10 src/system/archive.cpp:N: Failed to open gzip archive: No such file or directory");
    EXPECT_EQ(uncompressed_size(directory / "absent", nullptr), 0U);
}

TEST_F(Archive, ThatIsTruncatedHasNoSize) {
    const std::string archive = pack("-z", "manifest.json");
    ASSERT_EQ(truncate(archive.c_str(), static_cast<off_t>(fs::file_size(archive)) - 12), 0);
    EXPECT_EQ(uncompressed_size(archive, error), 0U);
    EXPECT_THAT(describe(error),
                StartsWith("10 src/system/archive.cpp:N: Failed to read gzip archive " + archive + ": "));
    EXPECT_THAT(error.message(), testing::HasSubstr("unexpected end of file"));
}

TEST_F(Archive, WithDamagedDataHasNoSize) {
    const std::string archive = pack("-z", "manifest.json");
    std::string bytes = test::read_text(archive);
    bytes[bytes.size() - 8] = static_cast<char>(bytes[bytes.size() - 8] ^ 0x55);  // its checksum
    test::write_text(archive, bytes);
    EXPECT_EQ(uncompressed_size(archive, error), 0U);
    EXPECT_THAT(error.message(), testing::HasSubstr("incorrect data check"));
}

TEST_F(Archive, ThatIsADirectoryHasNoSize) {
    EXPECT_EQ(uncompressed_size(directory.path(), error), 0U);
    EXPECT_EQ(describe(error), "10 src/system/archive.cpp:N: Failed to read gzip archive " +
                                   directory.path() + ": Is a directory");
}
