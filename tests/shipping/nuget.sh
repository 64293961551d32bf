#!/usr/bin/env bash
# The NuGet package consumed as a .NET project would: unpacked where a restore
# puts it (Mono's `nuget install` takes many minutes), the binding's sample
# compiled against lib/netstandard2.0/Velmora.dll, the native assets beside it
# (a build for linux-x64) and then below runtimes/linux-x64/native/ (a portable
# build), run under mono with the checkout and build's Python hidden (a mount
# namespace; root): only the library the binding finds there can load.
#   nuget.sh PACKAGES_DIR SOURCE_DIR MODELS_DIR BUILD_PYTHON_PREFIX
set -euo pipefail
packages=$1 source=$(realpath "$2") models=$(realpath "$3") python_prefix=$(realpath "$4")
work=$(mktemp -d /tmp/velmora-nuget.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

mkdir "$work/app" "$work/models"
nupkg=("$packages"/Velmora.*.nupkg)
version=$(basename "${nupkg[0]}" .nupkg) version=${version#Velmora.}
# Where a restore puts it: the global packages folder, lower-case id, version.
installed=$work/packages/velmora/$version/
mkdir -p "$installed" && (cd "$installed" && unzip -q "${nupkg[0]}")
grep -q "<version>$version</version>" "$installed/Velmora.nuspec" || fail "the nuspec does not carry $version"
lib=${installed}lib/netstandard2.0
grep -q '<member name="T:Velmora.LlmModel">' "$lib/Velmora.xml" || fail "no XML documentation in $lib"
mcs -nologo -warnaserror -r:"$lib/Velmora.dll" -out:"$work/app/Example.exe" "$source/bindings/dotnet/samples/VelmoraConsole/Program.cs"
cp "$lib/Velmora.dll" "$lib/Velmora.xml" "$work/app/"
cp -r "${installed}"runtimes/linux-x64/native/. "$work/app/"
espeak-ng -w "$work/speech.wav" "The quick brown fox jumps over the lazy dog."

cd /
for layout in beside runtimes; do
  if [[ $layout == runtimes ]]; then  # where a portable build (no runtime identifier) leaves them
    mkdir -p "$work/app/runtimes/linux-x64/native"
    mv "$work/app/Tarvik.Velmora.Framework.OpenVINOBindings.so" "$work/app/velmora-runtime" \
      "$work/app/runtimes/linux-x64/native/"
  fi
  output=$(unshare -m bash -euo pipefail -s "$work" "$models" "$source" "$python_prefix" <<'HIDDEN'
work=$1
mount --bind "$2" "$work/models"
for hidden in "$3" "$4"; do mount -t tmpfs none "$hidden"; done
mono "$work/app/Example.exe" "$work/models/smollm2" "$work/models/whisper-base" "$work/speech.wav"
HIDDEN
  ) || fail "the program failed, native assets $layout: $output"
  grep -q '^Once upon a time.' <<<"$output" || fail "nothing generated, native assets $layout: $output"
  grep -qi '^heard: .*fox' <<<"$output" || fail "the speech was not heard, native assets $layout: $output"
done
echo "nuget $(basename "$packages"/Velmora.*.nupkg): passed ($(du -h "$packages"/Velmora.*.nupkg | cut -f1))"
