# Sourced by the scripts: installs the Debian packages a script needs when
# they are missing, and says which. On a system without apt it names them and
# stops. The package lists live here, one per purpose.
# shellcheck shell=bash

VOBREL_PKGS_DEMO=(cmake ninja-build g++)
VOBREL_PKGS_TEST=(cmake ninja-build g++ g++-multilib clang libclang-rt-14-dev googletest
                  libbenchmark-dev libglib2.0-dev binutils pkg-config python3 abigail-tools
                  lintian dpkg-dev man-db groff-base qemu-user)

# ensure_packages PKG...: every PKG installed afterwards, or exit 1.
ensure_packages() {
  local missing=() pkg
  if ! command -v dpkg >/dev/null || ! command -v apt-get >/dev/null; then
    echo "This machine has no apt. Install the equivalents of these Debian packages: $*" >&2
    exit 1
  fi
  for pkg in "$@"; do
    dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "Missing packages and no root or sudo to install them: ${missing[*]}" >&2
      exit 1
    fi
    sudo=(sudo)
  fi
  echo "=== installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${sudo[@]}" apt-get update -qq
  "${sudo[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
}
