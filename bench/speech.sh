#!/bin/sh
# Makes the benchmark's speech: bench/out/speech.f32, exactly 30 s of 16 kHz
# mono float samples (a full Whisper window), and bench/out/speech/*.f32 with
# the text each says in a .txt beside it, for word error rates. espeak-ng and
# sox come from scripts/apt-packages.txt. Existing files are kept.
set -eu
cd "$(dirname "$0")/out"
mkdir -p speech

say() {  # say NAME ESPEAK_OPTIONS... -- TEXT
    name=$1; shift
    [ -s "speech/$name.f32" ] && return 0
    opts=""
    while [ "$1" != "--" ]; do opts="$opts $1"; shift; done
    shift
    printf '%s' "$1" > "speech/$name.txt"
    espeak-ng $opts -w "speech/$name.wav" "$1"
    sox "speech/$name.wav" -r 16000 -c 1 -b 32 -e float -t raw "speech/$name.f32"
    rm "speech/$name.wav"
}

say long -s 150 -- "The library adds a small interface on top of the runtime. \
Its users will compare it with calling the runtime directly, and the goal is that the difference cannot be seen. \
Speech recognition turns spoken words into written text. This recording lasts half a minute, so that the model \
has a full window of audio to transcribe. The quick brown fox jumps over the lazy dog. Every measurement is \
repeated, and the spread is reported together with the median, because the machine is shared with other work."
say fast -v en-us -s 185 -- "Please send the quarterly report to the finance team before Friday afternoon, \
and remember to include the travel expenses from the conference in Berlin."
say slow -v en+f3 -s 130 -- "A gentle rain fell over the harbour while the fishing boats returned with their catch. \
The old captain tied his rope to the post and walked slowly home."

if [ ! -s speech.f32 ]; then
    # Padded with silence or cut to exactly 30 s.
    sox -r 16000 -c 1 -b 32 -e float -t raw speech/long.f32 -t raw speech.f32 pad 0 30 trim 0 30
fi
