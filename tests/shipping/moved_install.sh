#!/usr/bin/env bash
# Installs the build (its library exporting only the two tables), builds the C
# examples (dlopen and linked) and the binding's README program against it,
# checks pkg-config, moves the prefix to a path with a space and runs the C
# hosts, the C# program (from bin/) and the command-line host there, both
# families, the checkout and build's Python hidden (a mount namespace; root).
#   moved_install.sh BUILD_DIR SOURCE_DIR MODELS_DIR BUILD_PYTHON_PREFIX
set -euo pipefail
build=$1 source=$(realpath "$2") models=$3 python_prefix=$(realpath "$4")
work=$(mktemp -d /tmp/velmora-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
library=Tarvik.Velmora.Framework.OpenVINOBindings.so
fail() { echo "FAILED: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/stage" >/dev/null
exported=$(nm -D --defined-only "$work/stage/lib/$library" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sort | xargs)
[[ $exported == "GetLlmApiBase GetWhisperApiBase" ]] || fail "the library exports $exported"
cmake -S "$source/examples/stream" -B "$work/example" -G Ninja -DCMAKE_PREFIX_PATH="$work/stage" >/dev/null
cmake --build "$work/example" >/dev/null
cmake -S "$source/examples/transcribe" -B "$work/transcribe" -G Ninja -DCMAKE_PREFIX_PATH="$work/stage" >/dev/null
cmake --build "$work/transcribe" >/dev/null
sample=$source/bindings/dotnet/samples/VelmoraConsole/Program.cs
[[ $(<"$source/bindings/dotnet/README.md") == *'```csharp'$'\n'"$(<"$sample")"$'\n```'* ]] ||
  fail "the binding's README shows another program than $sample"
mcs -nologo -warnaserror -r:"$work/stage/lib/Velmora.dll" -out:"$work/stage/bin/Example.exe" "$sample"
cp "$work/stage/lib/Velmora.dll" "$work/stage/bin/"
[[ -s $work/stage/lib/Velmora.xml ]] || fail "the install carries no XML documentation"

# The package's own files name the prefix they were installed to.
export PKG_CONFIG_PATH=$work/stage/lib/pkgconfig
[[ $(pkg-config --variable=library TarvikVelmoraOpenVINOBindings) -ef $work/stage/lib/$library ]] ||
  fail "pkg-config names $(pkg-config --variable=library TarvikVelmoraOpenVINOBindings)"
[[ $(pkg-config --cflags TarvikVelmoraOpenVINOBindings) == "-I$(pkg-config --variable=includedir TarvikVelmoraOpenVINOBindings) " &&
   -f $(pkg-config --variable=includedir TarvikVelmoraOpenVINOBindings)/openvino_bindings.h ]] ||
  fail "pkg-config cflags $(pkg-config --cflags TarvikVelmoraOpenVINOBindings)"
linked=$("$work/example/velmora-stream-linked" "$models/tiny-llm" "Once upon a time" 2>/dev/null)
[[ ${#linked} -ge 10 ]] || fail "the linked example streamed '$linked'"

prefix="$work/moved prefix"
mv "$work/stage" "$prefix"
mkdir "$work/models"
cp -r "$models/tiny-llm" "$models/whisper-base" "$work/models/"
espeak-ng -w "$work/speech.wav" "The quick brown fox jumps over the lazy dog."
sox -R "$work/speech.wav" -r 16000 -c 1 -b 16 "$work/speech16.wav"
# A minute of speech, two of the model's windows: long enough for Ctrl-C to land mid-way.
sox "$work/speech16.wav" "$work/long.wav" repeat 19

unshare -m bash -euo pipefail -s "$work" "$prefix" "$source" "$python_prefix" <<'HIDDEN'
work=$1 prefix=$2
cd /
for hidden in "$3" "$4"; do mount -t tmpfs none "$hidden"; done
[[ ! -e $3/CMakeLists.txt ]] || { echo "FAILED: the checkout is still visible" >&2; exit 1; }
fail() { echo "FAILED: $*" >&2; exit 1; }
library="$prefix/lib/Tarvik.Velmora.Framework.OpenVINOBindings.so"

text=$("$work/example/velmora-stream" "$work/models/tiny-llm" "Once upon a time" "$library" 2>/dev/null)
[[ ${#text} -ge 10 ]] || fail "the C host streamed '$text'"
# The assembly in bin/ finds the library in ../lib/ (the only one left: the build tree is in the hidden
# checkout), after refusing a missing file before any model loads.
status=0
text=$(mono "$prefix/bin/Example.exe" "$work/models/tiny-llm" "$work/models/whisper-base" "$work/missing.wav" 2>&1) ||
  status=$?
[[ $status == 2 && $text == "cannot read "*missing.wav:* && $text != *Initializing* ]] ||
  fail "the C# program given a missing file: $status '$text'"
text=$(mono "$prefix/bin/Example.exe" "$work/models/tiny-llm" "$work/models/whisper-base" "$work/speech.wav")
[[ $(head -1 <<<"$text") == "Once upon a time"?* && ${text,,} == *"heard: "*fox* ]] || fail "the C# program printed '$text'"
text=$("$work/transcribe/velmora-transcribe" "$work/models/whisper-base" "$work/speech16.wav" en "$library" 2>/dev/null)
[[ ${text,,} == *fox* ]] || fail "the C transcriber printed '$text'"
# Ctrl-C, repeated until it ends (one before the transcription starts is forgotten), returns the text so far.
full=$("$work/transcribe/velmora-transcribe" "$work/models/whisper-base" "$work/long.wav" en "$library" 2>/dev/null)
set -m  # else a job started with & ignores Ctrl-C
"$work/transcribe/velmora-transcribe" "$work/models/whisper-base" "$work/long.wav" en "$library" >"$work/cut.txt" 2>/dev/null &
pid=$!
sleep 1
while kill -INT "$pid" 2>/dev/null; do sleep 0.2; done
wait "$pid" || fail "the interrupted transcriber failed"
cut=$(<"$work/cut.txt")
[[ -n $cut && ${#cut} -lt ${#full} && ${cut:0:20} == "${full:0:20}" ]] || fail "interrupted, the C transcriber printed '$cut' of '$full'"
# One Ctrl-C while the model loads stops it too (it was once held back and then lost).
"$work/transcribe/velmora-transcribe" "$work/models/whisper-base" "$work/long.wav" en "$library" >"$work/cut.txt" 2>/dev/null &
pid=$!
sleep 0.3
kill -INT "$pid"
status=0 && wait "$pid" || status=$?
[[ $status == 130 || $(wc -c <"$work/cut.txt") -lt ${#full} ]] || fail "one early Ctrl-C left the transcriber running"
text=$("$prefix/bin/velmora-host" generate --stats --model "$work/models/tiny-llm" "Once upon a time")
[[ ${#text} -ge 10 ]] || fail "velmora-host generated '$text'"
text=$("$prefix/bin/velmora-host" transcribe --model "$work/models/whisper-base" "$work/speech.wav")
[[ ${text,,} == *fox* ]] || fail "velmora-host transcribed '$text'"
HIDDEN
