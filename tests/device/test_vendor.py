"""The vendor of an upgrade is held against the stored package, whatever its directory shows."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
from apps import app
from setups import STORE, Put, velkctl
from store_support import CARD, LAYERS, SETTINGS, allow_unsigned
from velkdevice.device import Device

MOUNT = "usr-local-packages-Sample.mount"
SAMPLE = f"{STORE}/Sample"
FILES = {"internal": SAMPLE, "sd_card1": f"{CARD}/Sample/lower", "internal_vlpfs": f"{LAYERS}/Sample/upper"}
REFUSED = (27, "code 27: Vendor ID in manifest does not match the vendor ID of the previous version\n")


@pytest.fixture
def camera(pristine: Device) -> Iterator[Device]:
    settings = pristine.read(SETTINGS)
    allow_unsigned(pristine)
    pristine.insert_card()
    yield pristine
    if pristine.exists(SAMPLE):
        pristine.velkctl("uninstall", "Sample")
    pristine.sh(f"rm -rf {STORE}/_backup/*").check()
    pristine.remove_card()
    pristine.write(SETTINGS, settings)


def install(device: Device, put_package: Put, location: str, vendor: str) -> tuple[int, str]:
    return velkctl(device, "install", put_package(device, app("Sample", vendorId=vendor), sign=False), location)


@pytest.mark.parametrize("location", FILES)
def test_another_vendor_is_refused_mounted_or_not(camera: Device, put_package: Put, location: str) -> None:
    assert install(camera, put_package, location, "one")[0] == 0
    assert install(camera, put_package, location, "two") == REFUSED
    if location != "internal":
        camera.run(["systemctl", "stop", MOUNT]).check()
        assert not camera.exists(f"{SAMPLE}/manifest.json")
        assert install(camera, put_package, location, "two") == REFUSED
    assert '"one"' in camera.read(f"{FILES[location]}/manifest.json")


def test_a_manifest_that_the_application_put_in_front_of_the_packed_one_says_nothing(
    camera: Device, put_package: Put
) -> None:
    """What a card's application writes lies above the package's files; what is not root's is no manifest at all."""
    assert install(camera, put_package, "sd_card1", "one")[0] == 0
    script = f"""
        systemctl stop {MOUNT}
        cd {CARD}/Sample && sed 's/"one"/"two"/' lower/manifest.json >upper/manifest.json
        systemctl start {MOUNT} && grep -q '"two"' {SAMPLE}/manifest.json
    """
    camera.sh(script).check()
    assert install(camera, put_package, "sd_card1", "two") == REFUSED
    back = f"systemctl stop {MOUNT}; rm {CARD}/Sample/upper/manifest.json; systemctl start {MOUNT}"
    camera.sh(back).check()
