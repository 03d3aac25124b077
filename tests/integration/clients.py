# Where the real FTP clients the integration tests drive are.
#
# scripts/setup.sh (`make setup`) installs every one of them. A missing client raises MissingClient, never a
# skip, so that no test passes without the client it is about. Scripts that use basic-ftp run with node_dir()
# as their working directory, where setup.sh installs the pinned version.

import os
import shutil

NODE_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "node")

# Client name: the commands that provide it, in order of preference. GNU inetutils' ftp is asked for
# by its own name: /usr/bin/ftp may be another client chosen through the alternatives system.
BINARIES = {"curl": ("curl",), "wget": ("wget",), "lftp": ("lftp",), "rclone": ("rclone",),
            "ncftpget": ("ncftpget",), "ncftpput": ("ncftpput",), "inetutils-ftp": ("inetutils-ftp",), "tnftp": ("tnftp",),
            "node": ("node", "nodejs")}


class MissingClient(RuntimeError):
    pass


def _missing(client):
    raise MissingClient("FTP client %s is not installed: run `make setup` (scripts/setup.sh, as root)" % client)


def binary(name):
    # Absolute path of the client's program; name is a key of BINARIES.
    return next(filter(None, map(shutil.which, BINARIES[name])), None) or _missing(name)


def node_dir():
    # The directory whose node_modules holds basic-ftp.
    binary("node")
    if not os.path.isfile(os.path.join(NODE_DIR, "node_modules", "basic-ftp", "package.json")):
        _missing("basic-ftp (Node.js, in tests/integration/node)")
    return NODE_DIR

