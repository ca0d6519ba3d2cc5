"""Firmware images: what `orv-upgradefw` fetches, checks and installs.

An image is a tar archive of parts, each with the maker's signature beside it:

    manifest.json   version, the device types and ports it knows, the oldest version that it upgrades, and
                    whether it needs python3
    rootfs.tar      the whole root file system
    kernel          here a text
    install.sh      run with the folder of the new root file system, after it was unpacked
    apps.tar        the applications' platform, here empty
    python3.tar     a python3 package, where the image brings one
    migrate.jq      where the configuration must take another form: a jq program that does it

Its checksum stands in a file of the same name with ".sha256" behind it. FAULTS are the ways in which an
image can be built wrong on purpose.
"""
import hashlib
import io
import json
import tarfile
import tempfile
from pathlib import Path

from router.virtual import image, keys

FAULTS = {
    "config": "the new system finds fault with every configuration",
    "agent": "its agent does not start",
    "init": "it does not boot at all",
    "manifest-signature": "the manifest is signed by somebody else",
    "rootfs-signature": "so is the root file system",
    "kernel-signature": "so is the kernel",
    "install-signature": "so is the install script",
    "apps-signature": "so is the applications' platform",
    "python3-signature": "so is the python3 package",
    "device": "made for another type of device",
    "too-new": "upgrades only from a version that this one is older than",
    "python3": "needs python3 and brings none",
    "migration": "cannot migrate this configuration",
    "ports": "does not know a port that the configuration has",
    "archive": "its root file system does not unpack",
    "install": "its install script fails",
    "empty": "no image at all",
    "empty-root": "its root file system holds next to nothing",
}
SIGNED_BY = {"manifest.json": "manifest", "rootfs.tar": "rootfs", "kernel": "kernel", "install.sh": "install",
             "apps.tar": "apps", "python3.tar": "python3"}
MIGRATE = '.system.general.location |= (. // "" | if . == "" then "not told" else . end)\n'
STRICT_META = "usr/share/vantrel/meta/system.general.json"


def build_image(output, build, version="1.1.0", faults=(), migrates=False):
    """Writes the image and its checksum; returns the image's path."""
    unknown = set(faults) - FAULTS.keys()
    if unknown:
        raise ValueError(f"no such fault: {', '.join(unknown)}")
    output = Path(output)
    output.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=output.parent) as folder:
        write_parts(Path(folder), Path(build).resolve(), version, faults, migrates)
        pack(Path(folder), output)
    digest = hashlib.sha256(output.read_bytes()).hexdigest()
    Path(f"{output}.sha256").write_text(f"{digest}  {output.name}\n")
    return output


def write_parts(folder, build, version, faults, migrates):
    if "empty" in faults:
        (folder / "readme").write_text("not a firmware image\n")
        return
    (folder / "manifest.json").write_text(json.dumps({
        "version": version,
        "device_types": [9] if "device" in faults else [1, 2, 5],
        "upgrades_from": "99.0.0" if "too-new" in faults else "1.0.0",
        "ports": ["lan0"] if "ports" in faults else ["lan0", "wan0"],
        "needs_python3": "python3" in faults or "python3-signature" in faults}))
    write_root(folder / "rootfs.tar", image.ensure(build), version, faults, migrates)
    (folder / "kernel").write_text(f"kernel of {version}\n")
    (folder / "install.sh").write_text("exit 1\n" if "install" in faults else 'test -e "$1/usr/bin/tessard"\n')
    tarfile.open(folder / "apps.tar", "w").close()
    if "python3-signature" in faults:
        tarfile.open(folder / "python3.tar", "w").close()
    if migrates or "migration" in faults:
        (folder / "migrate.jq").write_text('error("no way")\n' if "migration" in faults else MIGRATE)
    sign_parts(folder, build, faults)


def sign_parts(folder, build, faults):
    right, wrong = keys.private_key(build), None
    for name, fault in SIGNED_BY.items():
        if not (folder / name).exists():
            continue
        key = right
        if f"{fault}-signature" in faults:
            wrong = wrong or keys.somebody_elses(folder)
            key = wrong
        (folder / f"{name}.sig").write_bytes(keys.sign(key, folder / name))


def pack(folder, output):
    new = output.with_name(f".{output.name}.new")
    with tarfile.open(new, "w", format=tarfile.GNU_FORMAT) as archive:
        for path in sorted(folder.iterdir(), key=lambda p: p.stat().st_size):
            if path.suffix != ".pem":
                archive.add(path, path.name, filter=owned_by_root)
    new.rename(output)


def owned_by_root(member):
    member.uid = member.gid = 0
    member.uname = member.gname = "root"
    return member


# --- the root file system

def write_root(output, root, version, faults, migrates):
    """The tree of `root` with what this firmware has of its own. One that will never be unpacked is left
    small."""
    if "archive" in faults:
        output.write_text("not an archive\n")
        return
    files = {"etc/firmware-version": (f"{version}\n".encode(), 0o644)}
    if migrates:
        files["usr/lib/router/migrate.jq"] = (MIGRATE.encode(), 0o644)
    if "agent" in faults:
        files["usr/bin/tessard"] = (b"#!/bin/sh\nexit 1\n", 0o755)
    if "config" in faults:
        files[STRICT_META] = (stricter((root / STRICT_META).read_text()), 0o644)
    left_out = {*files, "usr/sbin/init"} if "init" in faults else set(files)
    with tarfile.open(output, "w", format=tarfile.GNU_FORMAT) as archive:
        if not set(faults) - {"config", "agent", "init"}:
            archive.add(root, ".", filter=lambda m: None if m.name[2:] in left_out else owned_by_root(m))
        for name, (text, mode) in files.items():
            member = tarfile.TarInfo(f"./{name}")
            member.size, member.mode = len(text), mode
            archive.addfile(owned_by_root(member), io.BytesIO(text))


def stricter(text):
    area = json.loads(text)
    area["required"] = True
    area["schema"]["required"] = ["asset_tag"]
    area["schema"]["properties"]["asset_tag"] = {"description": "the tag of the asset", "type": "string"}
    return json.dumps(area, indent=2).encode()
