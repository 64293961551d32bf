#!/usr/bin/env bash
# The strongest shipping proof: makes the release archive, unpacks it into a
# minimal Debian bookworm tree (debootstrap --variant=minbase: no Python) at a
# path with a space, and runs the command-line host there with chroot,
# generating text and transcribing a WAV. Needs root and the Debian mirror
# this machine's apt already uses (read from its sources, never written here).
# minbase lacks only the CLI's audio libraries (libsndfile1, libsamplerate0);
# the library itself needs nothing beyond the C and C++ runtimes.
#   scripts/release_chroot.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
root=$(mktemp -d /tmp/velmora-chroot.XXXXXX)
trap 'umount "$root/proc" "$root/sys" 2>/dev/null || true; rm -rf "$root"' EXIT
(cd "$build" && cpack -G TGZ >/dev/null)
archive=$(ls "$build"/package/TarvikVelmoraOpenVINOBindings-*.tar.gz)
# The first main-archive URI of apt's own sources (deb822 or one-line form).
mirror=$(cat /etc/apt/sources.list.d/*.sources 2>/dev/null | awk '/^URIs:/ && $2 !~ /security/ {print $2; exit}')
[[ -n $mirror ]] || mirror=$(cat /etc/apt/sources.list 2>/dev/null | awk '/^deb / && $2 !~ /security/ {print $2; exit}')
[[ -n $mirror ]] || { echo "release_chroot: no Debian mirror in apt's sources" >&2; exit 1; }
debootstrap --variant=minbase --include=libsndfile1,libsamplerate0 bookworm "$root" "$mirror" >/dev/null
mkdir -p "$root/opt/my apps" && tar -xzf "$archive" -C "$root/opt/my apps"
cp -r models/tiny-llm models/whisper-base "$root/opt/"
espeak-ng -w "$root/opt/speech.wav" "The quick brown fox jumps over the lazy dog."
# OpenVINO reads the processor's topology from /proc and /sys, as on any real system.
mount -t proc proc "$root/proc" && mount -t sysfs sys "$root/sys"
host=$(cd "$root" && ls -d "opt/my apps"/*/bin/velmora-host)
chroot "$root" "/$host" generate --model /opt/tiny-llm "Once upon a time"
text=$(chroot "$root" "/$host" transcribe --model /opt/whisper-base /opt/speech.wav)
echo "$text"
[[ ${text,,} == *fox* ]]
echo "release archive in minbase chroot: passed ($(du -h "$archive" | cut -f1))"
