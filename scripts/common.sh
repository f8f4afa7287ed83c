# shellcheck shell=bash
# What the scripts of this directory share.
set -euo pipefail

vexaRoot=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
vexaBuild=${VEXA_BUILD_DIR:-$vexaRoot/build}
export VEXA_BUILD_DIR=$vexaBuild

die() {
    echo "${0##*/}: $*" >&2
    exit 1
}

# Prints the name of the next step, and keeps it in `stepName` for the message if it fails.
step() {
    stepName=$*
    printf '\n== %s (%s s)\n' "$stepName" "$SECONDS"
}

# sources PATTERN...: the project's files that match, also those that git does not track yet.
sources() {
    git -C "$vexaRoot" ls-files -co --exclude-standard --deduplicate -- "$@" |
        while read -r file; do
            [ ! -e "$vexaRoot/$file" ] || echo "$file"
        done
}

asRoot() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "installing packages needs root; run this as root once, or install sudo"
    fi
}

# Installs the packages of scripts/packages that are missing; prints nothing if none is.
installPackages() {
    # shellcheck disable=SC2046
    installMissing $(grep -v '^#' "$vexaRoot/scripts/packages")
}

# installMissing PACKAGE...: the same for those named.
installMissing() {
    local missing wanted
    wanted=$(printf '%s\n' "$@")
    # shellcheck disable=SC2086
    missing=$(comm -23 <(sort <<<"$wanted") \
        <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' $wanted 2>/dev/null |
            sed -n 's/^installed //p' | sort -u))
    [ -n "$missing" ] || return 0
    echo "installing: $(tr '\n' ' ' <<<"$missing")"
    asRoot apt-get update -qq
    # shellcheck disable=SC2086
    asRoot env DEBIAN_FRONTEND=noninteractive \
        apt-get install -qq -y --no-install-recommends $missing >/dev/null
}

# buildPreset PRESET [TARGET...]: configures that preset and builds everything, or those targets.
buildPreset() {
    local preset=$1
    shift
    quietly cmake --preset "$preset" -S "$vexaRoot" -B "$vexaBuild/$preset"
    quietly cmake --build "$vexaBuild/$preset" ${1:+--target "$@"}
}

# Runs a command; shows its output only if it fails.
quietly() {
    local output
    if ! output=$("$@" 2>&1); then
        echo "$output"
        die "failed: $*"
    fi
}
