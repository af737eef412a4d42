# shellcheck shell=bash
# Functions of the scripts. Sourced by bash with `set -euo pipefail`.

set -E # the ERR trap applies in functions
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit

heading() { printf '\n== %s\n' "$*"; }

fail() {
  printf '\n== failed: %s\n' "$*" >&2
  exit 1
}

trap 'printf "\n== failed: line %s of %s: %s\n" "$LINENO" "${BASH_SOURCE[0]##*/}" "$BASH_COMMAND" >&2' ERR

# ccache is optional. With precompiled headers, it caches only with this sloppiness.
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
  export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS-pch_defines,time_macros,include_file_mtime,include_file_ctime}
fi

# install_packages SECTION ...: installs the packages of these sections of scripts/packages.txt that are missing.
install_packages() {
  local wanted=() missing=() package root=()
  mapfile -t wanted < <(awk -v sections=" $* " '/^\[/ { on = index(sections, " " substr($1, 2, length($1) - 2) " ") }
                                               on && /^[a-z0-9]/ { print $1 }' scripts/packages.txt)
  for package in "${wanted[@]}"; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    heading "all ${#wanted[@]} Debian packages are installed"
    return
  fi
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "these packages are missing, and there is no sudo: ${missing[*]}"
    root=(sudo)
  fi
  heading "installing Debian packages: ${missing[*]}"
  local log=build/packages.log
  mkdir -p build
  "${root[@]}" apt-get update >"$log" 2>&1 || { tail -20 "$log" >&2; fail "apt-get update (full log: $log)"; }
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" \
    >>"$log" 2>&1 || { tail -20 "$log" >&2; fail "apt-get install (full log: $log)"; }
}

# configure PRESET: configures a preset. Prints the log only if that fails.
configure() {
  local log=build/$1.log
  mkdir -p build
  cmake --preset "$1" >"$log" 2>&1 || { tail -40 "$log" >&2; fail "cmake --preset $1 (full log: $log)"; }
}

# build PRESET [TARGET ...]: configures a preset and builds the targets, or all. Prints the log only if that fails.
build() {
  local preset=$1
  shift
  local log=build/$preset.log started=$SECONDS
  heading "building ${*:-everything} ($preset)"
  configure "$preset"
  cmake --build --preset "$preset" ${1:+--target "$@"} >>"$log" 2>&1 ||
    { grep -E -A15 'error|FAILED' "$log" | head -80 >&2; fail "building $preset (full log: $log)"; }
  printf '   done in %d s\n' $((SECONDS - started))
}
