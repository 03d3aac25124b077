#!/bin/bash
# The benchmark's own set-up: the peer servers it measures against, from Debian's packages. The
# packages are only installed, never started as services: bench/run.py runs each peer itself, in
# the foreground, with its own configuration on a loopback port.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "bench: run as root (the peer changes root and user for its sessions; a bind mount)" >&2
    exit 1
fi
if ! command -v vsftpd >/dev/null 2>&1 && [ ! -x /usr/sbin/vsftpd ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get install -y --no-install-recommends vsftpd >/dev/null ||
        { apt-get update >/dev/null && apt-get install -y --no-install-recommends vsftpd >/dev/null; }
fi
# Its sessions change root into an empty directory that the package normally makes.
mkdir -p /var/run/vsftpd/empty
