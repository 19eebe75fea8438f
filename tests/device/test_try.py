"""Trying an application: from a folder or a package to its page on the host's loopback and a prompt, and nothing left."""

from __future__ import annotations

import base64
import fcntl
import os
import pty
import re
import select
import signal
import subprocess
import termios
import time
import urllib.error
import urllib.request
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from velkdevice import host, image, package, parts

CHECKOUT = Path(__file__).resolve().parents[2]
DEVICE = CHECKOUT / "device" / "device"
HELLO = CHECKOUT / "examples" / "hello"


@pytest.fixture
def environment() -> dict[str, str]:
    """The programs under test, built together."""
    velkctl = Path(os.environ.get("VELKCTL_BINARY", CHECKOUT / "build" / "debug" / "src" / "velkctl"))
    velk_pack = velkctl.parent / "velk-pack"
    if not velk_pack.exists():
        pytest.skip("needs velk-pack beside velkctl")
    return {**os.environ, "VELKCTL_BINARY": str(velkctl), "VELK_PACK_BINARY": str(velk_pack)}


@pytest.fixture(autouse=True, scope="module")
def image_is_there() -> None:
    """What making the image says is no part of any answer."""
    image.ensure(verbose=False)
    parts.ensure()


def is_of_the_dead(folder: Path) -> bool:
    """Whether the device of this folder is gone: a living one, be it of other tests, holds its lock."""
    try:
        with (folder / "alive").open("r+") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return True
    except (BlockingIOError, FileNotFoundError):
        return False


@pytest.fixture(autouse=True)
def nothing_stays_on_the_host() -> Iterator[None]:
    yield
    end = time.monotonic() + 10  # a device of other tests may be about to go
    while (left := [one for one in (host.BUILD / "run").glob("velk-*") if is_of_the_dead(one)]) and time.monotonic() < end:
        time.sleep(0.1)
    assert not left


def try_it(environment: dict[str, str], path: Path, commands: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [DEVICE, "try", path], input=commands, env=environment, capture_output=True, text=True, check=False, timeout=300
    )


def test_a_folder_is_packed_installed_and_started(environment: dict[str, str]) -> None:
    result = try_it(environment, HELLO, "systemctl is-active sdkhello\nvelkctl list --version hello\n")
    assert (result.returncode, result.stderr) == (0, "")
    lines = result.stdout.splitlines()
    assert re.fullmatch(r"Packed \d+ entries, \d+ bytes", lines[0])
    assert "Successfully installed application 'hello' on 'internal'" in lines
    assert "Started application hello" in lines
    assert re.search(r"^http://127\.0\.0\.1:\d+/local/hello/index\.html$", result.stdout, re.MULTILINE)
    assert result.stdout.endswith("active\n1.0.0")


def test_a_strangers_package_is_signed_anew_for_the_device(environment: dict[str, str], tmp_path: Path) -> None:
    stranger = package.pack(HELLO, tmp_path / "hello.vlp", key=package.Key.named("stranger"))
    before = stranger.read_bytes()
    result = try_it(environment, stranger, "velkctl list --friendly-name hello\n")
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.startswith("The simulated device does not have the key of this package")
    assert result.stdout.endswith("Hello example")
    assert stranger.read_bytes() == before


def test_what_cannot_be_tried_is_one_line(environment: dict[str, str], tmp_path: Path) -> None:
    result = try_it(environment, tmp_path / "none", "")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"device: {tmp_path}/none: is neither a package nor a folder\n"
    (tmp_path / "manifest.json").write_text("{}")
    result = try_it(environment, tmp_path, "")
    assert (result.returncode, result.stdout) == (1, "")
    assert "Could not read velkPackageConf from manifest" in result.stderr


class Terminal:
    """A process on a terminal of its own, and what it has written there so far."""

    def __init__(self, argv: list[str], environment: dict[str, str]) -> None:
        self._fd, theirs = pty.openpty()
        self.process = subprocess.Popen(
            argv,
            stdin=theirs,
            stdout=theirs,
            stderr=theirs,
            env=environment,
            start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
        )
        os.close(theirs)
        self.text = ""

    def wait_for(self, condition: Callable[[str], bool], what: str, timeout: float = 120) -> None:
        end = time.monotonic() + timeout
        while not condition(self.text):
            if not select.select([self._fd], [], [], max(0.0, end - time.monotonic()))[0]:
                raise AssertionError(f"waited in vain for {what}:\n{self.text}")
            try:
                self.text += os.read(self._fd, 4096).decode(errors="replace")
            except OSError:
                raise AssertionError(f"ended before {what}:\n{self.text}") from None

    def type(self, line: str) -> None:
        os.write(self._fd, line.encode() + b"\n")

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.terminate()
        self.process.wait(60)
        os.close(self._fd)


@pytest.fixture
def terminal(environment: dict[str, str]) -> Iterator[Terminal]:
    opened = Terminal([str(DEVICE), "try", str(HELLO)], environment)
    yield opened
    opened.close()


def get(address: str, login: str | None = None) -> tuple[int, str]:
    request = urllib.request.Request(address)
    if login:
        request.add_header("Authorization", "Basic " + base64.b64encode(f"{login}:{login}".encode()).decode())
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(request, timeout=20) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as refusal:
        return refusal.code, ""


def test_the_page_is_on_the_hosts_loopback_while_the_prompt_is_open(terminal: Terminal) -> None:
    terminal.wait_for(lambda text: "exit ends the device" in text and "camera:" in text, "the prompt")
    found = re.search(r"http://127\.0\.0\.1:\d+/local/hello/", terminal.text)
    assert found
    assert get(f"{found[0]}index.html")[0] == 401
    assert get(f"{found[0]}index.html", "viewer") == (200, (HELLO / "html" / "index.html").read_text())
    terminal.type("systemctl is-active sdkhello; echo $((40 + 2))")
    terminal.wait_for(lambda text: "42" in text.split("exit ends the device")[1], "the shell's answer")
    assert "active\r\n42\r\n" in terminal.text
    terminal.type("exit")
    assert terminal.process.wait(60) == 0
    with pytest.raises(OSError):
        get(found[0])


def test_a_closed_terminal_ends_the_device(terminal: Terminal) -> None:
    terminal.wait_for(lambda text: "exit ends the device" in text, "the prompt")
    terminal.process.terminate()
    assert terminal.process.wait(60) == 128 + signal.SIGTERM
