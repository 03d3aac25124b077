#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need, only when missing.
# Safe to run again: it asks apt only for what dpkg does not already list as installed.
set -eu

packages=(
  build-essential g++ cmake make pkg-config git
  libgtest-dev libgmock-dev
  libinih-dev libsystemd-dev libedit-dev libpam0g-dev libcrypt-dev
  libradcli-dev libsnmp-dev libpwquality-dev cracklib-runtime
  clang clang-format clang-tidy
  python3 curl wget lftp strace procps iproute2
  freeradius freeradius-utils snmptrapd snmp pamtester passwd
  systemd groff-base dpkg-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]}" >&2
  echo "setup: run as root (or install them) and try again" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

# The integration tests start their own RADIUS server and trap receiver on private ports; system
# services that an install may have started would only hold 1812 and 162 for nothing.
for p in "${missing[@]}"; do
  case "$p" in
    freeradius | snmptrapd)
      if command -v systemctl >/dev/null 2>&1; then
        systemctl disable --now "$p" >/dev/null 2>&1 || true
      fi
      ;;
  esac
done
