# What the scripts share. Sourced by bash with `set -euo pipefail`.

set -E  # functions fail aloud, too
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

fail() {
  printf '\n== failed: %s\n' "$*" >&2
  exit 1
}

trap 'printf "\n== failed: line %s of %s: %s\n" "$LINENO" "${BASH_SOURCE[0]##*/}" "$BASH_COMMAND" >&2' ERR

# Installs what is missing of the sections of scripts/packages.txt that are named.
install_packages() {
  local wanted=() missing=() package root=()
  mapfile -t wanted < <(awk -v sections=" $* " '/^\[/ { on = index(sections, " " substr($1, 2, length($1) - 2) " ") }
                                               on && /^[a-z0-9]/ { print $1 }' scripts/packages.txt)
  for package in "${wanted[@]}"; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    say "all ${#wanted[@]} Debian packages are installed"
    return
  fi
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "these packages are missing, and there is no sudo: ${missing[*]}"
    root=(sudo)
  fi
  say "installing Debian packages: ${missing[*]}"
  local log=build/packages.log
  mkdir -p build
  "${root[@]}" apt-get update >"$log" 2>&1 || { tail -20 "$log" >&2; fail "apt-get update (all of it: $log)"; }
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" \
    >>"$log" 2>&1 || { tail -20 "$log" >&2; fail "apt-get install (all of it: $log)"; }
}

options=() # for cmake, beside the preset's own

# configure PRESET: prints the log only if it fails.
configure() {
  local log=build/$1.log
  mkdir -p build
  cmake --preset "$1" "${options[@]}" >"$log" 2>&1 || { tail -40 "$log" >&2; fail "cmake --preset $1 (all of it: $log)"; }
}

# build PRESET [TARGET ...]: configures and builds; prints the log only if it fails.
build() {
  local preset=$1
  shift
  local log=build/$preset.log started=$SECONDS
  say "building ${*:-everything} ($preset)"
  configure "$preset"
  cmake --build --preset "$preset" ${1:+--target "$@"} >>"$log" 2>&1 ||
    { grep -E -A15 'error|FAILED' "$log" | head -80 >&2; fail "building $preset (all of it: $log)"; }
  printf '   done in %d s\n' $((SECONDS - started))
}
