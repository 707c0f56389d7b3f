# Sourced by the scripts: installs the Debian packages a script needs when
# they are missing, and says which. On a system without apt it names them and
# stops. The package lists live here, one per purpose.
# shellcheck shell=bash

VOBREL_PKGS_DEMO=(cmake ninja-build g++)
VOBREL_PKGS_TEST=(cmake ninja-build g++ g++-multilib clang libclang-rt-14-dev googletest
                  libbenchmark-dev libglib2.0-dev binutils pkg-config python3 abigail-tools
                  lintian dpkg-dev man-db groff-base qemu-user)
VOBREL_PKGS_BENCH=(cmake ninja-build g++ g++-multilib libbenchmark-dev libglib2.0-dev pkg-config
                   python3 gnuplot-nox)
# Mutation testing (scripts/mutation): libclang's Python module reads the syntax tree.
VOBREL_PKGS_MUTATION=(cmake ninja-build g++ python3 python3-clang)
# Packages of the target architecture, installed beside the host's ones.
VOBREL_PKGS_BENCH_I386=(libbenchmark-dev:i386)

# ensure_packages PKG...: every PKG installed afterwards, or exit 1. A name
# with ":i386" first adds that architecture to dpkg.
ensure_packages() {
  local missing=() pkg
  if ! command -v dpkg >/dev/null || ! command -v apt-get >/dev/null; then
    echo "This machine has no apt. Install the equivalents of these Debian packages: $*" >&2
    exit 1
  fi
  for pkg in "$@"; do
    # One line per installed architecture of the package; any of them will do.
    dpkg-query -W -f='${db:Status-Abbrev}\n' "$pkg" 2>/dev/null | grep -q '^ii' || missing+=("$pkg")
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
  if [[ " ${missing[*]}" == *:i386* ]] && ! dpkg --print-foreign-architectures | grep -qx i386; then
    "${sudo[@]}" dpkg --add-architecture i386
  fi
  # A mirror in the middle of a sync fails one index now and then; the
  # install below says whether what is needed could still be found.
  if ! "${sudo[@]}" apt-get update -qq; then
    sleep 20
    "${sudo[@]}" apt-get update -qq || echo "=== apt-get update had errors; installing anyway" >&2
  fi
  "${sudo[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
}
