#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need, and the tests' Node.js
# client, only when missing. Safe to run again: it asks apt only for what dpkg does not already list
# as installed, and npm only when the pinned client is not in place. Needs no standard input.
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)

packages=(
  build-essential g++ cmake make pkg-config git
  libgtest-dev libgmock-dev
  libinih-dev libedit-dev libpam0g-dev libcrypt-dev
  libradcli-dev libsnmp-dev libpwquality-dev libssl-dev openssl cracklib-runtime
  clang clang-format clang-tidy
  python3 curl wget lftp strace procps iproute2
  rclone ncftp inetutils-ftp tnftp
  freeradius freeradius-utils snmptrapd snmp pamtester passwd fail2ban haproxy
  systemd groff-base dpkg-dev
)

# Node.js and npm may come from outside Debian (NodeSource's nodejs bundles npm and conflicts with
# Debian's npm package), so the commands decide, not dpkg.
command -v node >/dev/null 2>&1 || packages+=(nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]}" >&2
    echo "setup: run as root (or install them) and try again" >&2
    exit 1
  fi

  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

  # The integration tests start their own RADIUS server, trap receiver and load balancer on
  # private ports, and need only fail2ban-regex of fail2ban; system services that an install may
  # have started would only hold 1812 and 162, or ban addresses of this machine's own logs, for
  # nothing.
  for p in "${missing[@]}"; do
    case "$p" in
      freeradius | snmptrapd | fail2ban | haproxy)
        if command -v systemctl >/dev/null 2>&1; then
          systemctl disable --now "$p" >/dev/null 2>&1 || true
        fi
        ;;
    esac
  done
fi

# The Node.js FTP client of the integration tests, at the versions package.json pins (the lock
# file fixes the rest). node_modules stays out of git; it is reinstalled only when a pinned
# version is not the one installed.
node_dir="$top/tests/integration/node"
pinned_in_place='
const fs = require("fs");
const deps = JSON.parse(fs.readFileSync("package.json", "utf8")).dependencies || {};
for (const [name, version] of Object.entries(deps)) {
  let got = null;
  try { got = JSON.parse(fs.readFileSync("node_modules/" + name + "/package.json", "utf8")).version; } catch (e) {}
  if (got !== version) process.exit(1);
}'
if ! (cd "$node_dir" && node -e "$pinned_in_place") </dev/null; then
  echo "setup: installing the Node.js test clients (npm ci in tests/integration/node)"
  (cd "$node_dir" && CI=true timeout 900 npm ci --no-audit --no-fund --no-update-notifier --loglevel=error) \
    </dev/null >/dev/null
fi
