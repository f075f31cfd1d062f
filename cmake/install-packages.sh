#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing need; does nothing when all are there.
set -euo pipefail

packages=(
    g++ cmake ninja-build ccache pkg-config
    libboost-dev libboost-thread-dev libboost-filesystem-dev libboost-date-time-dev
    libjsoncpp-dev libssl-dev libspdlog-dev libcli11-dev
    libavcodec-dev libavformat-dev libavutil-dev libswscale-dev libswresample-dev
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstrtspserver-1.0-dev
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
    gstreamer1.0-plugins-ugly gstreamer1.0-x
    libgtest-dev libgmock-dev
    ffmpeg curl openssl ca-certificates binutils
    "$@"
)

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "These packages are missing and neither root nor sudo is at hand: ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi
as_root+=(env DEBIAN_FRONTEND=noninteractive)
echo "Installing: ${missing[*]}" >&2
# A fresh machine has no package lists yet; a machine with lists need not fetch them again.
if ! "${as_root[@]}" apt-get install -y --no-install-recommends "${missing[@]}" >&2; then
    "${as_root[@]}" apt-get update >&2
    "${as_root[@]}" apt-get install -y --no-install-recommends "${missing[@]}" >&2
fi
