#!/bin/bash
# The benchmark's own set-up: the peer servers it measures against, from Debian's packages. The
# packages are only installed, never started as services: bench/run.py runs each peer itself, in
# the foreground, with its own configuration on a loopback port. vsftpd is the peer every target
# is judged against; pure-ftpd and proftpd are optional, and a failure to provide them only
# leaves them out of the run.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "bench: run as root (the peer changes root and user for its sessions; a bind mount)" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive

# Debian's FTP server packages conflict with one another (each provides ftp-server), so only
# vsftpd is installed; the optional peers are unpacked from their packages into this directory,
# without maintainer scripts, where bench/run.py looks for them. Their libraries are installed.
PEERS=/opt/ftps-bench/peers

# A package's postinst may start its service: while this script installs, policy-rc.d refuses
# every start (unless the machine already has a policy of its own).
POLICY=/usr/sbin/policy-rc.d
if [ ! -e "$POLICY" ]; then
    printf '#!/bin/sh\nexit 101\n' >"$POLICY"
    chmod 755 "$POLICY"
    trap 'rm -f "$POLICY"' EXIT
fi

# Whatever served port 21 before is the machine's own business.
listening21=$(ss -Hltn 'sport = :21' 2>/dev/null || true)

updated=0
# apt-get with a single `apt-get update` per run, only when a first try fails (stale lists).
apt_retry() {
    "$@" >/dev/null 2>&1 && return 0
    if [ "$updated" -eq 0 ]; then
        updated=1
        apt-get update >/dev/null || return 1
        "$@" >/dev/null 2>&1 && return 0
    fi
    return 1
}

if ! command -v vsftpd >/dev/null 2>&1 && [ ! -x /usr/sbin/vsftpd ]; then
    apt_retry apt-get install -y --no-install-recommends vsftpd
fi
# Its sessions change root into an empty directory that the package normally makes.
mkdir -p /var/run/vsftpd/empty
# The TLS measurements' self-signed certificate is made with the openssl command.
if ! command -v openssl >/dev/null 2>&1; then
    apt_retry apt-get install -y --no-install-recommends openssl
fi

# Unpacks PACKAGE under $PEERS/DIR (DIR: the package's name unless given) unless FILE is there
# already (or the peer is installed as a package anyway), and installs the libraries it depends
# on. A package unpacked into another one's directory adds to it (a peer's loadable modules).
unpack_peer() {
    local pkg=$1 file=$2 dir=${3:-$1}
    if command -v "$(basename "$file")" >/dev/null 2>&1 || [ -e "$file" ] ||
        [ -e "$PEERS/$dir$file" ]; then
        return 0
    fi
    local tmp
    tmp=$(mktemp -d)
    # apt-get download writes into the current directory, as the unprivileged _apt user.
    chown _apt "$tmp" 2>/dev/null || true
    if ! (cd "$tmp" && apt_retry apt-get download "$pkg"); then
        rm -rf "$tmp"
        return 1
    fi
    local deb libs
    deb=$(ls "$tmp"/*.deb)
    # The libraries among the dependencies (the rest are the service's packaging: inetd,
    # adduser, the package's common files, the peer's own core package).
    libs=$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/([^)]*)//g; s/|.*//; s/ //g' |
        grep '^lib' || true)
    if [ -n "$libs" ] && ! apt_retry apt-get install -y --no-install-recommends $libs; then
        rm -rf "$tmp"
        return 1
    fi
    if [ "$dir" = "$pkg" ]; then
        rm -rf "${PEERS:?}/$dir"
    fi
    mkdir -p "$PEERS/$dir"
    dpkg-deb -x "$deb" "$PEERS/$dir"
    rm -rf "$tmp"
    [ -e "$PEERS/$dir$file" ]
}

unpack_peer pure-ftpd /usr/sbin/pure-ftpd ||
    echo "bench: pure-ftpd could not be unpacked; the run leaves it out"
unpack_peer proftpd-core /usr/sbin/proftpd ||
    echo "bench: proftpd could not be unpacked; the run leaves it out"
# proftpd's TLS (mod_tls) is a loadable module of its own package, of the same version.
[ ! -x "$PEERS/proftpd-core/usr/sbin/proftpd" ] ||
    unpack_peer proftpd-mod-crypto /usr/lib/proftpd/mod_tls.so proftpd-core ||
    echo "bench: proftpd's TLS module could not be unpacked; the run leaves proftpd out of the TLS rows"

# Nothing installed here may have started serving the machine's FTP port.
if [ -n "$listening21" ] || ! ss -Hltn 'sport = :21' | grep -q .; then
    exit 0
fi
echo "bench: something listens on port 21 since set-up:" >&2
ss -Hltnp 'sport = :21' >&2
exit 1
