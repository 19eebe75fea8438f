#include "integration/units.h"

#include <gtest/gtest.h>

#include "integration/unit-text.h"
#include "support.h"

namespace {

std::string expected(const std::string& name) { return test::read_text(TEST_DATA_DIR "/units/" + name); }

constexpr const char* REFUSAL = "10 Systemd unit field contains invalid newline character";

ServiceUnit sample_service() {
    ServiceUnit unit;
    unit.app = "Sample";
    unit.description = "Sample";
    unit.directory = "/usr/local/packages/Sample";
    unit.run_mode = "once";
    unit.user = "velk-sample";
    unit.group = "velk-sample";
    unit.uid = 991;
    return unit;
}

std::string service_text(const ServiceUnit& unit) {
    ErrorSlot error;
    const std::optional<std::string> text = service_unit_text(unit, error);
    EXPECT_EQ(test::describe(error), "none");
    return text.value_or("(refused)");
}

ContentsUnit sample_contents() {
    return {"Sample",
            "/opt/packages/_layers/Sample/lower.vlp",
            "/opt/packages/_layers/Sample/lower",
            {},
            {},
            991,
            4,
            33};
}

}  // namespace

TEST(ServiceUnit, HoldsTheLeastThatAnApplicationNeeds) {
    EXPECT_EQ(service_text(sample_service()), expected("service-plain.service"));
}

TEST(ServiceUnit, CarriesTheNameAsATextAndTheOptionsAsTheCommandLineThatTheyAre) {
    ServiceUnit unit = sample_service();
    unit.description = "A Sample, \"friendly\" 100%";
    unit.run_options = "--level 3 \"two words\" $HOME 5%";
    EXPECT_EQ(service_text(unit), expected("service-texts.service"));
}

TEST(ServiceUnit, RestartsByTheRunMode) {
    ServiceUnit unit = sample_service();
    for (const char* mode : {"once", "never", "", "Respawn", "respawnonfailure"}) {
        unit.run_mode = mode;
        EXPECT_EQ(service_text(unit), expected("service-plain.service")) << mode;
    }
    unit.run_mode = "respawn";
    EXPECT_EQ(service_text(unit), expected("service-respawn.service"));
    unit.run_mode = "respawnOnFailure";
    EXPECT_EQ(service_text(unit), expected("service-respawn-on-failure.service"));
}

TEST(ServiceUnit, WaitsForTheOverlayOfACard) {
    ServiceUnit unit = sample_service();
    unit.overlay_unit = "usr-local-packages-Sample.mount";
    EXPECT_EQ(service_text(unit), expected("service-card.service"));
}

TEST(ServiceUnit, PullsInEachMountInOrderWithBlanksAndPercentSignsKept) {
    ServiceUnit unit = sample_service();
    unit.required_mounts = {"/usr/local/packages/Sample/data/db", "/usr/local/packages/Sample/two words 5%",
                            "/usr/local/packages/Sample"};
    EXPECT_EQ(service_text(unit), expected("service-mounts.service"));
}

TEST(ServiceUnit, NamesTheFastCgiSocket) {
    ServiceUnit unit = sample_service();
    unit.fcgi_socket = "/usr/local/packages/Sample/html/Sample_fcgi.socket";
    EXPECT_EQ(service_text(unit), expected("service-fcgi.service"));
}

TEST(ServiceUnit, SetsARealTimePriority) {
    ServiceUnit unit = sample_service();
    unit.scheduling_policy = "rr";
    unit.real_time_priority = 42;
    EXPECT_EQ(service_text(unit), expected("service-real-time.service"));
}

TEST(ServiceUnit, RunsAsAUserThatIsNotTheApplicationsOwn) {
    ServiceUnit unit = sample_service();
    unit.user = "sdk";
    unit.group = "sdk";
    EXPECT_EQ(service_text(unit), expected("service-static-user.service"));
}

TEST(ServiceUnit, OfAContainerHostHasTwoSectionsMore) {
    ServiceUnit unit = sample_service();
    unit.container_host = true;
    EXPECT_EQ(service_text(unit), expected("service-container-host.service"));
    unit.create_docker_symlinks = true;
    EXPECT_EQ(service_text(unit), expected("service-container-both.service"));
    unit.container_host = false;
    EXPECT_EQ(service_text(unit), expected("service-container-tools.service"));
}

TEST(ServiceUnit, RefusesTextsThatWouldBecomeMoreThanOneLine) {
    for (const char* text : {"a\nExecStartPre=/bin/evil", "a\rb", "\n", "a\\", "a\\ \t"}) {
        for (std::string ServiceUnit::*field : {&ServiceUnit::description, &ServiceUnit::run_options}) {
            ServiceUnit unit = sample_service();
            unit.*field = text;
            ErrorSlot error;
            EXPECT_FALSE(service_unit_text(unit, error)) << text;
            EXPECT_EQ(test::describe(error), REFUSAL);
        }
    }
}

TEST(DropIn, LeavesNetworkAndCapabilitiesAlone) {
    EXPECT_EQ(network_drop_in_text(), expected("network-drop-in.conf"));
}

TEST(MountUnit, IsNamedAfterItsPathWithoutEscaping) {
    EXPECT_EQ(mount_unit_name("/usr/local/packages/MyApp"), "usr-local-packages-MyApp.mount");
    EXPECT_EQ(mount_unit_name("/usr/local/packages/MyApp/data/db"), "usr-local-packages-MyApp-data-db.mount");
    EXPECT_EQ(mount_unit_name("/usr/local/packages/My-App/a b"), "usr-local-packages-My-App-a b.mount");
    EXPECT_EQ(mount_unit_name("/opt/packages/_layers/MyApp/lower"), "opt-packages-_layers-MyApp-lower.mount");
}

TEST(CardUnits, WaitForTheCardAndMountTheOverlay) {
    ErrorSlot error;
    EXPECT_EQ(disk_polling_unit_name("Sample"), "sdkSample-disk-mounted.service");
    EXPECT_EQ(disk_polling_unit_text("SD_DISK", error), expected("disk-polling.service"));
    const OverlayUnit overlay{"Sample", "/usr/local/packages/Sample",
                              "/var/spool/storage/SD_DISK/packages/Sample", "sdkSample-disk-mounted.service"};
    EXPECT_EQ(card_overlay_unit_text(overlay, error), expected("card-overlay.mount"));
    EXPECT_EQ(card_overlay_drop_in_text(overlay, error), expected("card-overlay-nodev.conf"));
    EXPECT_EQ(test::describe(error), "none");
}

TEST(LayerUnits, MountTheContentsAndTheWritableLayer) {
    ErrorSlot error;
    EXPECT_EQ(contents_unit_text(sample_contents(), error), expected("layer-contents.mount"));
    const OverlayUnit overlay{"Sample", "/usr/local/packages/Sample", "/opt/packages/_layers/Sample",
                              "opt-packages-_layers-Sample-lower.mount"};
    EXPECT_EQ(layer_overlay_unit_text(overlay, error), expected("layer-overlay.mount"));
    EXPECT_EQ(test::describe(error), "none");
}

TEST(LayerUnits, MakeTheScriptsExecutable) {
    ContentsUnit contents = sample_contents();
    contents.post_install_script = "after.sh";
    contents.pre_uninstall_script = "sub/before.sh";
    ErrorSlot error;
    EXPECT_EQ(contents_unit_text(contents, error), expected("layer-contents-scripts.mount"));
}

TEST(LayerUnits, RefuseAScriptWhoseNameWouldBecomeAMountOption) {
    for (const char* script : {"a,suid", "a;/:rwxrwxrwx", "a:b", "a b", "a%b", "../a", ""}) {
        for (std::optional<std::string> ContentsUnit::*field :
             {&ContentsUnit::post_install_script, &ContentsUnit::pre_uninstall_script}) {
            ContentsUnit contents = sample_contents();
            contents.*field = script;
            ErrorSlot error;
            EXPECT_FALSE(contents_unit_text(contents, error)) << script;
            EXPECT_EQ(test::describe(error), "10 Illegal argument to shell command: " + std::string(script));
        }
    }
}

TEST(SquashfsUnit, MountsTheImageReadOnly) {
    const SquashfsUnit unit{"Sample", "/usr/local/packages/Sample",
                            "/usr/local/packages/Sample/images/db.sqfs",
                            "/usr/local/packages/Sample/data/db"};
    ErrorSlot error;
    EXPECT_EQ(squashfs_unit_text(unit, error), expected("squashfs.mount"));
}

TEST(SquashfsUnit, KeepsPercentSignsOfPathsAndRefusesBackslashesAtTheEnd) {
    SquashfsUnit unit{"Sample", "/d", "/d/50%h.sqfs", "/d/a b"};
    ErrorSlot error;
    EXPECT_EQ(
        squashfs_unit_text(unit, error),
        "[Unit]\nDescription=SQFS mount for Sample\nRequiresMountsFor=/d\n\n[Mount]\nWhat=/d/50%%h.sqfs\n"
        "Where=/d/a b\nType=squashfs\nOptions=ro,nosuid,nodev\n");
    unit.mount_point = "/d/a\\";
    EXPECT_FALSE(squashfs_unit_text(unit, error));
    EXPECT_EQ(test::describe(error), REFUSAL);
}

// --- the builder ---

TEST(UnitText, WritesASectionLineOnlyWhenTheSectionChanges) {
    ErrorSlot error;
    EXPECT_EQ(UnitText().text(error), "");
    EXPECT_EQ(UnitText("A b").text(error), "[Unit]\nDescription=A b\n");
    EXPECT_EQ(
        UnitText().add("S", "a", "1").add("S", "b", "2").add("T", "c", "3").add("S", "d", "4").text(error),
        "[S]\na=1\nb=2\n\n[T]\nc=3\n\n[S]\nd=4\n");
}

TEST(UnitText, TrimsTrailingBlanksAndNothingElse) {
    ErrorSlot error;
    EXPECT_EQ(UnitText().add("S", "a", " x y \t ").add("S", "b", "  ").add("S", "c", "").text(error),
              "[S]\na= x y\nb=\nc=\n");
}

TEST(UnitText, KeepsBackslashesInsideAValue) {
    ErrorSlot error;
    EXPECT_EQ(UnitText().add("S", "a", "\\x \\\\ y").text(error), "[S]\na=\\x \\\\ y\n");
}

TEST(UnitText, IsRefusedAsAWholeOnceAnEntryIs) {
    for (const auto& [key, value] :
         {std::pair{"a\nb", "c"}, {"a\rb", "c"}, {"a", "b\n"}, {"a", "b\r"}, {"a", "\\"}, {"a", "b\\\\"}}) {
        ErrorSlot error;
        EXPECT_FALSE(UnitText("d").add("S", key, value).add("S", "fine", "1").text(error));
        EXPECT_EQ(test::describe(error), REFUSAL);
    }
}
