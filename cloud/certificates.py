"""The cloud's own certificate authority and server certificate, made by the openssl command."""
import subprocess


def openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)


def make_authority(folder, name, address):
    """Writes ca.pem and server.pem, key and certificate for that host name and address; returns both."""
    authority, server = folder / "ca.pem", folder / "server.pem"
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
            "-days", 3650, "-subj", "/CN=tessard test authority", "-keyout", folder / "ca.key",
            "-out", authority)
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
            "-days", 3650, "-subj", f"/CN={name}", "-addext", f"subjectAltName=DNS:{name},IP:{address}",
            "-addext", "basicConstraints=critical,CA:FALSE", "-CA", authority, "-CAkey", folder / "ca.key",
            "-keyout", folder / "server.key", "-out", folder / "server.crt")
    server.write_text((folder / "server.key").read_text() + (folder / "server.crt").read_text())
    return authority, server
