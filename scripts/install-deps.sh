#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, benchmark and run.
# Idempotent: packages already present are left alone, and apt is asked only for missing ones.
# gsoap (soapcpp2) generates the key-server clients' SOAP stubs at build time; python3 and openssl run their
# loopback server and make its throwaway certificates in the tests.
# libmicrohttpd is fmp4mux's HTTP origin (--serve); nginx (with its WebDAV PUT) is the remote origin that the
# push tests (--push) start on 127.0.0.1.
# chromium, Node.js and npm run the end-to-end playback tests (tests/e2e/player). A machine that already has
# node and npm (from another packaging of Node.js) keeps them: Debian's npm would conflict with such a nodejs.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build g++ pkg-config
  clang libclang-rt-14-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libssl-dev openssl python3
  libcurl4-openssl-dev libcurlpp-dev
  gsoap libgsoap-dev
  libjsoncpp-dev libtinyxml2-dev libcli11-dev
  libavformat-dev libavcodec-dev libavutil-dev
  libmicrohttpd-dev nginx curl
  ffmpeg libxml2-utils time
  chromium
)
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  PACKAGES+=(nodejs npm)
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
