"""The command-line host driven end to end, as a user runs it: cli_test.py HOST MODELS_DIR [unittest args]."""
import contextlib
import os
import pty
import re
import signal
import subprocess
import sys
import tempfile
import unittest
import wave
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))
import velmora  # noqa: E402  (for its defaults only; it loads no library)

HOST = MODELS = SPEECH = None
PROMPT = "Once upon a time"


def run(*args, **kwargs):
    return subprocess.run([HOST, *args], capture_output=True, text=True, timeout=300, **kwargs)


def tiny(*args):
    """Generation on the tiny random model: fast and deterministic (greedy)."""
    return run("generate", "--model", os.path.join(MODELS, "tiny-llm"), *args)


def interrupt(args, pipe, ready):
    """Sends Ctrl-C once what `pipe` ("stdout" or "stderr") showed satisfies `ready`."""
    process = subprocess.Popen([HOST, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        seen = b""
        while not ready(seen):
            chunk = os.read(getattr(process, pipe).fileno(), 4096)
            assert chunk, "the host ended before it was interrupted"
            seen += chunk
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=60)
    finally:
        process.kill()
    assert process.returncode == 130 and b"interrupted" in err, (process.returncode, err)
    return (seen + out, err) if pipe == "stdout" else (out, seen + err)


class Host(unittest.TestCase):
    def continuation(self, result):
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertTrue(result.stdout.startswith(PROMPT) and result.stdout.endswith("\n"), result.stdout)
        return result.stdout[len(PROMPT):-1]

    def test_streams_with_statistics_and_stop_lists_shorten_the_stream(self):
        result = tiny("--context", "40", "--stats", PROMPT)  # how its lines read: the README's
        full = self.continuation(result)
        stats = re.search(r"stats: (\d+) tokens", result.stderr)
        self.assertTrue(len(full) > 40 and stats and 20 <= int(stats.group(1)) <= 40, result)  # pieces may merge
        # A stop string from the middle ends the text just before; starting at
        # a blank, it starts a token too.
        word = " " + full.split(" ")[len(full.split(" ")) // 2]
        stopped = self.continuation(tiny("--context", "40", "--stop", "zzzz", "--stop", word, PROMPT))
        self.assertEqual(stopped, full[:full.index(word)])
        # A stop id: the token the tokenizer gives for the text's middle.
        ids = run("tokenize", "--model", os.path.join(MODELS, "tiny-llm"), full).stdout.split()
        stopped = self.continuation(tiny("--context", "40", "--stop-id", ids[len(ids) // 2], PROMPT))
        self.assertTrue(full.startswith(stopped) and len(stopped) < len(full), (stopped, full))

    def test_ctrl_c_cancels_a_generation_and_keeps_its_text_or_ends_a_loading(self):
        out, err = interrupt(["--model", os.path.join(MODELS, "tiny-llm"), "--context", "100000", "--stats",
                              PROMPT], "stdout", lambda seen: len(seen) > len(PROMPT) + 40)
        self.assertTrue(out.startswith(PROMPT.encode()) and out.endswith(b"\n"), out[-80:])
        self.assertTrue(1 <= int(re.search(rb"stats: (\d+) tokens", err).group(1)) < 1000, err)
        # Armed with nothing to cancel yet: the library logs as InitModel starts.
        _, err = interrupt(["--model", os.path.join(MODELS, "smollm2"), PROMPT], "stderr",
                           lambda seen: b"Initializing" in seen)
        self.assertNotIn(b"done in", err)

    def test_progress_redraws_on_a_terminal_while_compiling(self):
        main, side = pty.openpty()
        process = subprocess.Popen([HOST, "compile", "--model", os.path.join(MODELS, "tiny-llm")],
                                   stdout=subprocess.PIPE, stderr=side)
        os.close(side)
        shown = b""
        with contextlib.suppress(OSError):  # EIO once the terminal's other side is gone
            while chunk := os.read(main, 4096):
                shown += chunk
        os.close(main)
        self.assertEqual((process.communicate(timeout=60)[0], process.returncode), (b"", 0), shown)
        self.assertRegex(shown, rb"\r\x1b\[K. compiling .*tiny-llm for CPU  \d+\.\d s")
        self.assertRegex(shown, rb"\r\x1b\[Kcompiling .*tiny-llm for CPU: done in \d+\.\d\d s\r?\n")

    def test_version_and_settings(self):  # a prompt from "-", and --set in the list: the README's
        self.assertRegex(run("--version").stdout, r"^velmora-host \d+\.\d+\.\d+\nruntime: openvino-genai 20\d\d\.[\d.]+\n$")
        # Every setting the library reads by name; the context is the package's default.
        lines = tiny("--list-settings").stdout.splitlines()
        self.assertTrue(len(lines) == 21 and all("=" in line for line in lines), lines)
        self.assertIn(f"max_new_tokens={velmora.DEFAULT_CONTEXT_LENGTH}", lines)
        listed = run("transcribe", "--list-settings", "--model", os.path.join(MODELS, "tiny-whisper")).stdout
        self.assertEqual([line for line in listed.splitlines() if "=" not in line],
                         ["language (not set)", "task (not set)"], listed)

    def test_failures_say_what_was_given_and_keep_the_library_message(self):
        missing, tiny_llm = os.path.join(MODELS, "missing"), os.path.join(MODELS, "tiny-llm")
        whisper = ["transcribe", "--model", os.path.join(MODELS, "tiny-whisper")]
        short = tempfile.NamedTemporaryFile(suffix=".wav")
        self.addCleanup(short.close)
        with wave.open(short.name, "wb") as audio:  # 200 samples: the runtime needs one more
            audio.setparams((1, 2, 16000, 0, "NONE", "")), audio.writeframes(bytes(400))
        for result, line in [
                (run(*whisper, short.name), f"cannot transcribe '{short.name}': it holds 200 samples at 16 kHz"),
                (run("--model", missing, PROMPT), f"cannot load model '{missing}': no such directory\n"),
                # CompileModel has no handle; its message still reaches the host.
                (run("compile", "--model", MODELS), f"cannot compile model '{MODELS}' for CPU: An exception occurred"),
                (run(*whisper, __file__), f"cannot read audio '{__file__}': the file exists, but libsndfile"),
                (run(*whisper, missing + ".mp3"), f"cannot read audio '{missing}.mp3': no such file\n"),
                (run(*whisper, MODELS), f"cannot read audio '{MODELS}': it is a directory\n")]:
            self.assertEqual(result.returncode, 1, result.stderr)
            self.assertIn("error: " + line, result.stderr)
        # Usage errors: found before any model loads, told in one line and a reminder.
        for args, line in [(["transcibe", "a.wav"], "unknown subcommand 'transcibe'; did you mean 'transcribe'?"),
                           (["--context", "0", PROMPT], "--context takes a number of tokens from 1"),
                           (["--model", tiny_llm, ""], "the prompt is empty"),
                           (["--set", "bogus=1", PROMPT], "--set bogus: no such LLM setting"),
                           (["--set", "stop_criteria=early", PROMPT], "stop_criteria takes EARLY, HEURISTIC or NEVER"),
                           ([*whisper, "--set", "max_new_tokens=x", SPEECH], "max_new_tokens takes an integer"),
                           ([*whisper, "--set", "task=say", SPEECH], "task takes transcribe or translate"),
                           ([*whisper, "--set", "return_timestamps=true", "--set", "max_new_tokens= 01", SPEECH],
                            "return_timestamps=true needs max_new_tokens of 2 or more"),
                           (["--context", "many"], "bad value for --context"), (["--set", "novalue"], "bad value"),
                           (["--stop", "", PROMPT], "--stop takes a text that is not empty"),
                           (["tokenize", "--stop", "x", "a"], "--stop does not apply to tokenize"),
                           (["tokenize", "--model", tiny_llm], "tokenize needs a text"), (["transcribe", "--stop", "x", "a.wav"], "")]:
            result = run(*args)
            self.assertEqual(result.returncode, 2, args)
            self.assertIn(line, result.stderr.splitlines()[0])
            self.assertLessEqual(len(result.stderr.splitlines()), 2, result.stderr)
        self.assertIn("the text holds a NUL character at 1", run("tokenize", "--model", tiny_llm, "-", input="a\0b").stderr)

    def test_speech_with_timestamps_is_plain_text(self):  # other formats, rates, channels: the README's
        result = run("transcribe", "--set", "return_timestamps=true", "--model", os.path.join(MODELS, "whisper-base"),
                     SPEECH)
        heard = set(re.findall(r"[a-z]+", result.stdout.lower()))
        self.assertGreaterEqual(len({"quick", "brown", "fox", "jumps", "over", "lazy", "dog"} & heard), 3, result)
        self.assertNotIn("<|", result.stdout)


def main():
    global HOST, MODELS, SPEECH
    HOST, MODELS = sys.argv[1], sys.argv[2]
    with tempfile.NamedTemporaryFile(suffix=".wav") as speech:
        subprocess.run(["espeak-ng", "-w", speech.name, "The quick brown fox jumps over the lazy dog."], check=True)
        SPEECH = speech.name
        unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)


if __name__ == "__main__":
    main()
