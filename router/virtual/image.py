"""The router's read-only root file system, built from the packages installed on this machine.

An image is named by its firmware version and a digest of what it was made of, and never changes:
many routers share one. BusyBox gives the usual commands at their usual paths; the programs that
the agent needs beyond it come with the libraries that `ldd` names.
"""
import fcntl
import hashlib
import os
import shutil
import subprocess
from pathlib import Path

from router.virtual import keys
from router.virtual.state import TREE

BUSYBOX = Path("/bin/busybox")
# Inside path -> where Debian has it. These win over the BusyBox applet of the same name: BusyBox's
# timeout leaves a command's children alive, and its ping needs privileges in another way.
PROGRAMS = {
    "/usr/bin/timeout": "/usr/bin/timeout",
    "/usr/bin/ping": "/bin/ping",
    "/usr/sbin/mosquitto": "/usr/sbin/mosquitto",
    "/usr/sbin/nft": "/usr/sbin/nft",
    "/sbin/ip": "/sbin/ip",
    "/usr/bin/jq": "/usr/bin/jq",
    "/usr/bin/curl": "/usr/bin/curl",
    "/usr/bin/openssl": "/usr/bin/openssl",
    "/usr/bin/mosquitto_sub": "/usr/bin/mosquitto_sub",
    "/usr/bin/mosquitto_pub": "/usr/bin/mosquitto_pub",
    "/usr/bin/strace": "/usr/bin/strace",
    "/usr/bin/systemd-tmpfiles": "/usr/bin/systemd-tmpfiles",
}
# Inside path -> in this tree: what a device installs beside the agent. A folder is taken with its files.
PACKAGED = {
    "/usr/lib/tmpfiles.d/tessard.conf": "packaging/tessard.tmpfiles.conf",
    "/usr/sbin/tessard-clean-scripts": "packaging/tessard-clean-scripts",
    "/usr/sbin/tessard-reserve": "packaging/tessard-reserve",
    "/usr/share/vantrel/default-config.json": "host/cmd/default-config.json",
    "/usr/share/vantrel/meta": "host/cmd/meta",
}
FAKETIME = "libfaketimeMT.so.1"
CA_BUNDLE = "/etc/ssl/certs/ca-certificates.crt"
MOUNT_POINTS = ("proc", "dev", "sys", "run", "tmp", "root", "mnt/outside", "mnt/slots", "var/data", "var/volatile",
                "etc/ssl/certs")
TEMPLATE = TREE / "router" / "image"


def libraries(program):
    """The shared libraries of a program, as {path inside: path on this machine}."""
    listing = subprocess.run(["ldd", program], capture_output=True, text=True, check=False).stdout
    found = {}
    for line in listing.splitlines():
        words = line.split()
        path = next((word for word in words if word.startswith("/")), None)
        if path:
            found[path] = os.path.realpath(path)
    return found


def faketime_library():
    for folder in Path("/usr/lib").glob("*/faketime"):
        if (folder / FAKETIME).exists():
            return folder / FAKETIME
    return None


def own_programs(build):
    """The programs of this tree that the image holds: {path inside: path in the build tree}."""
    found = {"/usr/bin/tessard": build / "tessard", "/usr/sbin/tessard-boot": build / "packaging/boot/tessard-boot"}
    for path in sorted((build / "host").rglob("*")):
        if path.is_file() and os.access(path, os.X_OK) and path.suffix == "":
            found[f"/usr/bin/{path.name}"] = path
    return found


def packaged(inside, path):
    if path.is_dir():
        return {f"{inside}/{file.name}": file for file in sorted(path.iterdir())}
    return {inside: path}


def contents(build):
    """Everything that goes in as a file: {path inside: path on this machine}."""
    programs = own_programs(build)
    programs.update((inside, Path(outside)) for inside, outside in PROGRAMS.items())
    files = {"/bin/busybox": BUSYBOX, **programs}
    for program in files.copy().values():
        files.update(libraries(program))
    if faketime_library():
        files[f"/usr/lib/{FAKETIME}"] = faketime_library()
        files.update(libraries(faketime_library()))
    for inside, path in PACKAGED.items():
        files.update(packaged(inside, TREE / path))
    return {inside: Path(outside) for inside, outside in files.items()}


def digest(version, files):
    total = hashlib.sha256(version.encode())
    sources = [*files.items(), *((str(p), p) for p in sorted(TEMPLATE.rglob("*")) if p.is_file()),
               (__file__, Path(__file__))]
    for inside, path in sources:
        if not path.exists():
            raise FileNotFoundError(f"{path} is missing: build the tree and install packages.txt")
        stat = path.stat()
        total.update(f"{inside} {stat.st_size} {stat.st_mtime_ns}\n".encode())
    return total.hexdigest()[:12]


def link_applets(root):
    """BusyBox's applets at their usual paths, where nothing better stands."""
    names = subprocess.run([BUSYBOX, "--list-full"], capture_output=True, text=True, check=True).stdout
    for name in names.split():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if not os.path.lexists(path):
            path.symlink_to("/bin/busybox")


def copy_in(root, inside, outside):
    target = root / inside.lstrip("/")
    target.parent.mkdir(parents=True, exist_ok=True)
    target.unlink(missing_ok=True)
    shutil.copyfile(outside, target)
    target.chmod(0o755 if os.access(outside, os.X_OK) else 0o644)


def fill(root, version, files):
    for name in MOUNT_POINTS:
        (root / name).mkdir(parents=True, exist_ok=True)
    for name in ("bin", "sbin", "lib", "lib64"):
        (root / "usr" / name).mkdir(parents=True)
        (root / name).symlink_to(f"usr/{name}")
    (root / "var/run").symlink_to("/run")
    (root / "var/log").symlink_to("/var/volatile/log")
    for path in sorted(TEMPLATE.rglob("*")):
        if path.is_file():
            copy_in(root, str(path.relative_to(TEMPLATE)), path)
    for inside, outside in files.items():
        copy_in(root, inside, outside)
    if os.path.exists(CA_BUNDLE):
        copy_in(root, CA_BUNDLE, CA_BUNDLE)
    else:
        (root / CA_BUNDLE.lstrip("/")).touch()
    (root / "etc/firmware-version").write_text(version + "\n")
    link_applets(root)


def ensure(build, version="1.0.0"):
    """The folder of the image for that build tree and version, built when it is not there yet."""
    build = Path(build).resolve()
    files = {**contents(build), "/etc/router/firmware-key.pub": keys.public_key(build)}
    store = build / "router-images"
    store.mkdir(exist_ok=True)
    final = store / f"{version}-{digest(version, files)}"
    lock = hold(store, fcntl.LOCK_EX)
    try:
        if not final.exists():
            drop_old(store)
            new = store / "new"
            shutil.rmtree(new, ignore_errors=True)
            new.mkdir()
            fill(new, version, files)
            new.rename(final)
    finally:
        os.close(lock)
    return final


def hold(folder, mode=fcntl.LOCK_SH):
    """Locks a folder until the returned descriptor is closed: shared by the routers that run on an
    image, so that it is not dropped. A folder can be locked by whoever may read it."""
    lock = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(lock, mode)
    except OSError:
        os.close(lock)
        raise
    return lock


def drop_old(store, keep=3):
    images = sorted((p for p in store.iterdir() if p.is_dir() and p.name != "new"),
                    key=lambda p: p.stat().st_mtime)
    for image in images[:-keep]:
        try:
            lock = hold(image, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            continue
        shutil.rmtree(image)
        os.close(lock)
