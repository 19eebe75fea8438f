"""
Applications of every shape: what their manifests can ask for, and a set in which any two wishes meet.

A shape gives each setting one of its values. The set is the same on every machine: it is drawn with a seed, first so
that each shape brings together as many pairs of values as it can, and then at random.
"""

from __future__ import annotations

import random
from itertools import combinations
from typing import Any

from setups import configured, section

Shape = dict[str, str]
Pair = frozenset[tuple[str, str]]

COUNT = 200
SEED = 4
ODD = {
    "friendlyName": "Quotes \" and ' and \\ inside, 5 % of $HOME, ünï; #",
    "runOptions": "--a \"b  c\" 'd e' f\\\\g 5 % $HOME ünï #",  # words in the service manager's own quoting
}

# The first value of each is what an application has that says nothing of it.
SETTINGS: dict[str, tuple[str, ...]] = {
    "location": ("internal", "sd_card1", "internal_vlpfs"),
    "name": ("Sample", "low", "With-Hyphen", "a_9", "L" + "o" * 23 + "ng"),
    "friendlyName": ("none", "plain", "odd"),
    "runMode": ("never", "once", "respawn", "respawnOnFailure"),
    "runOptions": ("none", "plain", "odd"),
    "user": ("own", "sdk"),
    "groups": ("none", "groups", "conditional", "both"),
    "methods": ("none", "required", "conditional", "both"),
    "processor": ("none", "enabled"),
    "containers": ("none", "host", "tools", "both", "tools that are missing"),
    "realTimePriority": ("none", "1", "99"),
    "pages": ("none", "viewer", "operator", "admin"),
    "transfer": ("none", "one", "below"),
    "fast": ("none", "one", "two"),
    "parameters": ("none", "no one", "some"),
    "settingPage": ("none", "page"),
    "images": ("none", "one", "two"),
    "postInstallScript": ("none", "succeeds", "fails"),
    "preUninstallScript": ("none", "succeeds", "fails"),
}

# What an application with a value cannot have beside it. On a card nothing may reach the web server or the parameter
# service; a user of the device has all rights already; a mount unit of a path with a hyphen is refused by systemd.
EXCLUDED = {
    ("location", "sd_card1"): {"pages", "transfer", "fast", "parameters"},
    ("user", "sdk"): {"groups", "methods", "processor"},
    ("name", "With-Hyphen"): {"location", "images"},
}


def possible(first: tuple[str, str], second: tuple[str, str]) -> bool:
    """Whether an application that has both values can be set up."""
    return not any(
        other in EXCLUDED.get(value, ()) and wish != SETTINGS[other][0]
        for value, (other, wish) in ((first, second), (second, first))
    )


def all_pairs() -> list[Pair]:
    """Every pair of values of two settings that can meet, in a fixed order."""
    pairs = []
    for first, second in combinations(SETTINGS, 2):
        for value in SETTINGS[first]:
            for other in SETTINGS[second]:
                if possible((first, value), (second, other)):
                    pairs.append(frozenset({(first, value), (second, other)}))
    return pairs


def pairs_of(shape: Shape) -> set[Pair]:
    return {frozenset(pair) for pair in combinations(shape.items(), 2)}


def _draw(missing: dict[Pair, None], chance: random.Random) -> Shape:
    """One shape: around a pair that is still missing, with the values that bring the most others along."""
    shape: Shape = dict(next(iter(missing), frozenset()))
    for setting in chance.sample(list(SETTINGS), len(SETTINGS)):
        if setting in shape:
            continue
        values = [value for value in SETTINGS[setting]
                  if all(possible((setting, value), chosen) for chosen in shape.items())]  # fmt: skip
        chance.shuffle(values)
        shape[setting] = max(values, key=lambda value: sum(
            frozenset({(setting, value), chosen}) in missing for chosen in shape.items()))  # fmt: skip
    return {setting: shape[setting] for setting in SETTINGS}


def shapes() -> list[Shape]:
    """The set of `COUNT` shapes."""
    chance = random.Random(SEED)
    missing = dict.fromkeys(all_pairs())
    drawn = []
    for _ in range(COUNT):
        drawn.append(_draw(missing, chance))
        for pair in pairs_of(drawn[-1]):
            missing.pop(pair, None)
    return drawn


# --- from a shape to an application ---


def _web(shape: Shape) -> list[dict[str, str]]:
    entries = [] if shape["pages"] == "none" else [{"type": "directory", "access": shape["pages"]}]
    names = {"transfer": {"one": ["upload.cgi"], "below": ["sub/upload.cgi", "page2.html"]},
             "fast": {"one": ["run.cgi"], "two": ["run.cgi", "sub/run.cgi"]}}  # fmt: skip
    for kind, group in (("transfer", "operator"), ("fast", "viewer")):
        for name in names[kind].get(shape[kind], []):
            entries.append({"type": f"{kind}Cgi", "access": group, "name": name})
    return entries


def _configuration(shape: Shape) -> dict[str, Any]:
    """The configuration section; a key that an application says nothing of is not there."""
    chosen: dict[str, Any] = {}
    web = _web(shape)
    if web:
        chosen["httpConfig"] = web
    if shape["parameters"] != "none":
        chosen["paramConfig"] = [] if shape["parameters"] == "no one" else [
            {"name": "Speed", "default": "10", "type": "int:min=0;max=100"},
            {"name": "label_2", "default": "say $HOME 5% ü", "type": "string"}]  # fmt: skip
    if shape["settingPage"] != "none":
        chosen["settingPage"] = "sub/page.html"
    if shape["realTimePriority"] != "none":
        chosen["cpuScheduling"] = {"realTimePriority": shape["realTimePriority"]}
    if shape["containers"] != "none":
        chosen["containers"] = {"containerHost": shape["containers"] in ("host", "both"),
                                "createDockerSymlinks": shape["containers"] != "host"}  # fmt: skip
    points = {"one": ["data/db"], "two": ["data/db", "plain"]}.get(shape["images"], [])
    if points:
        chosen["squashfsMounts"] = [{"path": "images/db.sqfs", "mountpoint": point} for point in points]
    return chosen


def _resources(shape: Shape, files: dict[str, Any]) -> None:
    wishes = {
        ("groups", "groups"): ("linux.user.groups", ["video", "audio"]),
        ("groups", "conditional"): ("linux.user.conditionalGroups", ["render", "scanner"]),
        ("methods", "required"): ("dbus.requiredMethods", ["com.orvo.b.X", "com.orvo.foo.*"]),
        ("methods", "conditional"): ("dbus.conditionalMethods", ["com.orvo.a.X"]),
        ("processor", "enabled"): ("deepLearningProcessor.enabled", True),
    }
    for (setting, value), (path, wish) in wishes.items():
        if shape[setting] in (value, "both"):
            section(files, f"resources.{path}", wish)


def application(shape: Shape) -> dict[str, Any]:
    """The files of an application of this shape."""
    files = configured(shape["name"], **_configuration(shape))
    setup = files["manifest.json"]["velkPackageConf"]["setup"]
    setup["runMode"] = shape["runMode"]
    for key, plain in (("friendlyName", "A sample"), ("runOptions", "--level 3")):
        setup.pop(key, None)
        if shape[key] != "none":
            setup[key] = ODD[key] if shape[key] == "odd" else plain
    if shape["user"] == "sdk":
        setup["user"] = {"username": "sdk", "group": "video"}
    _resources(shape, files)
    for place, key in (("installation", "postInstallScript"), ("uninstallation", "preUninstallScript")):
        if shape[key] != "none":
            section(files, f"velkPackageConf.{place}.{key}", f"scripts/{key}.sh")
            status = 0 if shape[key] == "succeeds" else 1
            files[f"scripts/{key}.sh"] = f"#!/bin/sh\nid -un >>localdata/{key}\nexit {status}\n"
    files |= {"html/sub/page.html": "deep\n", "html/page2.html": "two\n", "data/db/": "", "plain/": "",
              "images/db.sqfs": "is not mounted before the service starts\n"}  # fmt: skip
    if shape["containers"] in ("tools", "both"):
        files |= {"docker": "#!/bin/sh\n", "docker-compose": "#!/bin/sh\n"}
    return files
