"""The real FTP clients the integration tests drive: where each one is.

scripts/setup.sh (`make setup`) installs every one of them. A missing client raises MissingClient,
never a skip, so that no test passes without the client it is about. Python's ftplib is part of
the standard library and needs nothing here.

Node.js scripts that use basic-ftp run with node_dir() as their working directory (or with
NODE_PATH set to its node_modules), where setup.sh installs the pinned version."""

import importlib
import os
import shutil
import sys

NODE_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "node")

# Debian's python3-ftputil lives in the system interpreter's directory, which another interpreter
# first on PATH (pyenv, a virtual environment) does not search; ftputil is pure Python.
DEBIAN_DIST_PACKAGES = "/usr/lib/python3/dist-packages"

# Client name: the commands that provide it, in order of preference. GNU inetutils' ftp is asked for
# by its own name: /usr/bin/ftp may be another client chosen through the alternatives system.
BINARIES = {
    "curl": ("curl",),
    "wget": ("wget",),
    "lftp": ("lftp",),
    "rclone": ("rclone",),
    "ncftpget": ("ncftpget",),
    "ncftpput": ("ncftpput",),
    "ncftpls": ("ncftpls",),
    "inetutils-ftp": ("inetutils-ftp",),
    "node": ("node", "nodejs"),
}


class MissingClient(RuntimeError):
    pass


def _missing(client):
    raise MissingClient("FTP client %s is not installed: run `make setup` (scripts/setup.sh, as root)" % client)


def binary(name):
    """Absolute path of the client's program; name is a key of BINARIES."""
    for command in BINARIES[name]:
        path = shutil.which(command)
        if path:
            return path
    _missing(name)


def node_dir():
    """The directory whose node_modules holds basic-ftp."""
    binary("node")
    if not os.path.isfile(os.path.join(NODE_DIR, "node_modules", "basic-ftp", "package.json")):
        _missing("basic-ftp (Node.js, in tests/integration/node)")
    return NODE_DIR


def ftputil():
    """The ftputil module."""
    try:
        return importlib.import_module("ftputil")
    except ImportError:
        pass
    if os.path.isdir(os.path.join(DEBIAN_DIST_PACKAGES, "ftputil")) and DEBIAN_DIST_PACKAGES not in sys.path:
        sys.path.append(DEBIAN_DIST_PACKAGES)  # last, so that it shadows nothing already found
        try:
            return importlib.import_module("ftputil")
        except ImportError:
            pass
    _missing("ftputil (python3-ftputil)")


if __name__ == "__main__":
    # Lists every client, failing at the first missing one.
    for client in BINARIES:
        print("%-14s %s" % (client, binary(client)))
    print("%-14s %s" % ("basic-ftp", node_dir()))
    print("%-14s %s" % ("ftputil", ftputil().__file__))
