"""The maker's key pair, which signs firmware: one for each build tree, made at first use."""
import fcntl
import os
import subprocess


def private_key(build):
    return pair(build)[0]


def public_key(build):
    return pair(build)[1]


def pair(build):
    folder = build / "firmware-key"
    folder.mkdir(exist_ok=True)
    private, public = folder / "private.pem", folder / "public.pem"
    lock = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not public.exists():
            openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", private)
            openssl("pkey", "-in", private, "-pubout", "-out", folder / "new.pem")
            (folder / "new.pem").rename(public)
    finally:
        os.close(lock)
    return private, public


def sign(key, path):
    """The signature of a file."""
    return openssl("dgst", "-sha256", "-sign", key, path)


def openssl(*arguments):
    return subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True).stdout


def somebody_elses(folder):
    """A private key that no router knows, written into that folder."""
    key = folder / "other.pem"
    openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key)
    return key
