#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "pack/child.h"
#include "pack/new-folder.h"
#include "pack/output-file.h"
#include "pack/pack-error.h"
#include "pack/package-file.h"
#include "pack/velk-pack-new.h"
#include "store/package-trailer.h"
#include "support.h"

using test::describe;
using test::tree_of;

TEST(PackError, NamesTheFileAndThenTheRule) {
    ErrorSlot error;
    EXPECT_FALSE(fail_with(error, 29, "App/manifest.json", "is missing"));
    EXPECT_EQ(describe(error), "29 App/manifest.json: is missing");
}

TEST(PackError, ShowsTheEndOfALongNameAndTheWholeRule) {
    ErrorSlot error;
    EXPECT_FALSE(fail_with(error, 1, std::string(4000, 'x') + "/end", "is missing"));
    EXPECT_EQ(describe(error), "1 ..." + std::string(113, 'x') + "/end: is missing");
}

TEST(OutputFile, IsThereWholeOrNotAtAll) {
    const test::TemporaryDirectory directory;
    const std::string path = directory / "out";
    ErrorSlot error;
    {
        OutputFile file;
        ASSERT_TRUE(file.create(path, error));
        ASSERT_TRUE(file.write("half", error));
        EXPECT_FALSE(test::name_exists(path));
    }
    EXPECT_EQ(tree_of(directory.path()), std::vector<std::string>{});
    OutputFile file;
    ASSERT_TRUE(file.create(path, error) && file.write("whole", error) && file.keep(error));
    EXPECT_EQ(test::read_text(path), "whole");
    EXPECT_EQ(test::mode_of(path), 0644);
    EXPECT_EQ(tree_of(directory.path()), std::vector<std::string>{"out"});
}

TEST(OutputFile, LeavesTheOldOneWhenItIsNotKept) {
    const test::TemporaryDirectory directory;
    test::write_text(directory / "out", "old");
    ErrorSlot error;
    {
        OutputFile file;
        ASSERT_TRUE(file.create(directory / "out", error) && file.write("new", error));
    }
    EXPECT_EQ(test::read_text(directory / "out"), "old");
}

TEST(NewFolder, IsThereWholeOrNotAtAll) {
    const test::TemporaryDirectory directory;
    ErrorSlot error;
    {
        NewFolder folder;
        ASSERT_TRUE(folder.create(directory / "App", error) &&
                    folder.add_file("html/x", "text", false, error));
    }
    EXPECT_EQ(tree_of(directory.path()), std::vector<std::string>{});
    NewFolder folder;
    ASSERT_TRUE(folder.create(directory / "App/", error) && folder.add_file("html/x", "text", false, error) &&
                folder.add_file("run", "#!", true, error) && folder.keep(error));
    EXPECT_EQ(tree_of(directory.path()),
              (std::vector<std::string>{"App", "App/html", "App/html/x", "App/run"}));
    EXPECT_EQ(test::mode_of(directory / "App"), 0755);
    EXPECT_EQ(test::mode_of(directory / "App/run") & 0700, 0700);
}

TEST(Child, IsFedAndHeard) {
    Child child;
    ErrorSlot error;
    const std::string signature = "the signature";
    ASSERT_TRUE(
        child.start({"sh", "-c", "cat; cat \"$1\" >&2; exit 7", "sh", "%signature%"}, &signature, error));
    child.feed("one ");
    child.feed("two");
    EXPECT_EQ(child.wait(), 7);
    EXPECT_EQ(child.output(), "one two");
    EXPECT_EQ(child.errors(), "the signature");
}

TEST(Child, ThatWantsNoInputIsNotWaitedFor) {
    const test::ChildResult result = test::run_child([] {
        std::signal(SIGPIPE, SIG_IGN);
        Child child;
        ErrorSlot error;
        if (!child.start({"true"}, nullptr, error))
            _exit(1);
        for (int i = 0; i < 100; i++)
            child.feed(std::string(100'000, 'x'));
        _exit(child.wait() == 0 ? 0 : 2);
    });
    EXPECT_EQ(result.exit_status, 0);
}

TEST(Child, ThatASignalEndedHasNoStatus) {
    Child child;
    ErrorSlot error;
    ASSERT_TRUE(child.start({"sh", "-c", "kill -9 $$"}, nullptr, error));
    EXPECT_EQ(child.wait(), -1);
}

TEST(Child, ThatIsNotThereIsNamed) {
    Child child;
    ErrorSlot error;
    EXPECT_FALSE(child.start({"no-such-program"}, nullptr, error));
    EXPECT_THAT(describe(error), testing::StartsWith("10 no-such-program: cannot be started: "));
}

TEST(Child, LastWordsAreTheLastLineWithoutTheProgramsName) {
    EXPECT_EQ(last_words("gpg: one\ngpg: signing failed: No secret key\n"), "signing failed: No secret key");
    EXPECT_EQ(last_words("two words: x"), "two words: x");
    EXPECT_EQ(last_words("x\n \n"), "x");
    EXPECT_EQ(last_words(""), "no reason given");
}

TEST(PackageFile, OfASignedPackageHasItsSignature) {
    const test::TemporaryDirectory directory;
    test::write_text(directory / "p", "data of the packagesig" + encode_package_trailer(3));
    ErrorSlot error;
    const auto package = open_package_file(directory / "p", error);
    ASSERT_TRUE(package) << describe(error);
    EXPECT_EQ(package->signature, "sig");
    EXPECT_EQ(package->data_size, 19U);
}

TEST(PackageFile, ThatHasBecomeShorterIsAnError) {
    const test::TemporaryDirectory directory;
    test::write_text(directory / "p", "\x1f\x8b" + std::string(100, 'x'));
    ErrorSlot error;
    const auto package = open_package_file(directory / "p", error);
    ASSERT_TRUE(package);
    ASSERT_EQ(truncate((directory / "p").c_str(), 50), 0);
    EXPECT_FALSE(for_each_data_block(
        *package, "", [](std::string_view) { return true; }, error));
    EXPECT_THAT(describe(error), testing::HasSubstr("cannot be read: No data available"));
}

TEST(PackageFile, MayBeAPipeThatIsNotWaitedFor) {
    const test::TemporaryDirectory directory;
    ASSERT_EQ(mkfifo((directory / "p").c_str(), 0600), 0);
    ErrorSlot error;
    EXPECT_FALSE(open_package_file(directory / "p", error));
    EXPECT_EQ(error.code(), 1);
}

TEST(Templates, AllHaveAManifestAProgramAPageAndALicence) {
    for (const char* language : {"c", "shell"}) {
        std::string names;
        for (const TemplateFile& file : template_files())
            if (file.language == language)
                names += std::string(file.name) + " ";
        for (const char* part : {"manifest.json ", "html/index.html ", "LICENSE ", "package.conf ", "@NAME@"})
            EXPECT_THAT(names, testing::HasSubstr(part)) << language;
    }
}
