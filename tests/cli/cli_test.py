"""The command-line host driven end to end, as a user runs it.

    cli_test.py HOST MODELS_DIR [unittest arguments]
"""
import os
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))
import velmora  # noqa: E402  (for its defaults only; it loads no library)

HOST = MODELS = None
PROMPT = "Once upon a time"


def run(*args, timeout=300):
    return subprocess.run([HOST, *args], capture_output=True, text=True, timeout=timeout)


def tiny(*args):
    """Generation on the tiny random model: fast and deterministic (greedy)."""
    return run("generate", "--model", os.path.join(MODELS, "tiny-llm"), *args)


class Generate(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        done = tiny("--context", "40", "--stats", PROMPT)
        assert done.returncode == 0, done.stderr
        cls.full = done

    def continuation(self, result):
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertTrue(result.stdout.startswith(PROMPT) and result.stdout.endswith("\n"), result.stdout)
        return result.stdout[len(PROMPT):-1]

    def test_streams_the_continuation_with_statistics(self):
        self.assertGreater(len(self.continuation(self.full)), 40)
        stats = re.search(r"stats: (\d+) tokens \(streamed pieces\) in [\d.]+ s, "
                          r"first piece after \d+ ms, [\d.]+ tokens/s", self.full.stderr)
        self.assertIsNotNone(stats, self.full.stderr)
        self.assertTrue(20 <= int(stats.group(1)) <= 40, stats.group(0))  # pieces may merge tokens
        self.assertRegex(self.full.stderr, r"loading .*tiny-llm on CPU: done in [\d.]+ s")

    def test_settings_and_stop_lists_shorten_the_same_stream(self):
        full = self.continuation(self.full)
        short = self.continuation(tiny("--context", "40", "--set", "max_new_tokens=5", PROMPT))
        self.assertTrue(full.startswith(short) and 0 < len(short) < len(full) / 3, (short, full))

        # A stop string taken from the middle of the text ends it just before.
        # It starts at a blank, so that it starts a token too.
        words = full.split(" ")
        word = " " + words[len(words) // 2]
        stopped = self.continuation(tiny("--context", "40", "--stop", "zzzz", "--stop", word, PROMPT))
        self.assertEqual(stopped, full[:full.index(word)])

        # A stop id: the token the tokenizer gives for the text's middle.
        ids = run("tokenize", "--model", os.path.join(MODELS, "tiny-llm"), full)
        self.assertEqual(ids.returncode, 0, ids.stderr)
        stop_id = ids.stdout.split()[len(ids.stdout.split()) // 2]
        stopped = self.continuation(tiny("--context", "40", "--stop-id", stop_id, PROMPT))
        self.assertTrue(full.startswith(stopped) and len(stopped) < len(full), (stopped, full))

    def test_ctrl_c_cancels_and_keeps_the_text_so_far(self):
        process = subprocess.Popen([HOST, "--model", os.path.join(MODELS, "tiny-llm"), "--context", "100000",
                                    "--stats", PROMPT], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            seen = b""
            deadline = time.monotonic() + 120
            while len(seen) < len(PROMPT) + 40 and time.monotonic() < deadline:
                ready, _, _ = select.select([process.stdout], [], [], 5)
                if ready:
                    chunk = os.read(process.stdout.fileno(), 4096)
                    self.assertTrue(chunk, "the host ended before it was interrupted")
                    seen += chunk
            self.assertIsNone(process.poll(), "the generation had already ended")
            process.send_signal(signal.SIGINT)
            rest, err = process.communicate(timeout=60)
        finally:
            process.kill()
        out = (seen + rest).decode(errors="replace")
        self.assertEqual(process.returncode, 130, err)
        self.assertTrue(out.startswith(PROMPT) and out.endswith("\n"), out[-80:])
        self.assertIn(b"interrupted", err)
        pieces = int(re.search(rb"stats: (\d+) tokens", err).group(1))
        self.assertTrue(1 <= pieces < 1000, pieces)


class Terminal(unittest.TestCase):
    def test_progress_redraws_on_a_terminal_while_compiling(self):
        main, side = pty.openpty()
        process = subprocess.Popen([HOST, "compile", "--model", os.path.join(MODELS, "tiny-llm")],
                                   stdout=subprocess.PIPE, stderr=side)
        os.close(side)
        shown = b""
        while True:
            try:
                chunk = os.read(main, 4096)
            except OSError:  # the terminal's other side is gone
                break
            if not chunk:
                break
            shown += chunk
        os.close(main)
        self.assertEqual(process.wait(timeout=60), 0, shown)
        with process.stdout:
            self.assertEqual(process.stdout.read(), b"")
        self.assertRegex(shown, rb"\r\x1b\[K. compiling .*tiny-llm for CPU  \d+\.\d s")
        self.assertRegex(shown, rb"\r\x1b\[Kcompiling .*tiny-llm for CPU: done in \d+\.\d\d s\r?\n")

    def test_ctrl_c_before_generation_ends_the_program(self):
        # Armed with nothing to cancel yet: the model is still loading.
        process = subprocess.Popen([HOST, "--model", os.path.join(MODELS, "smollm2"), PROMPT],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            line = process.stderr.readline()  # the library's log line, at the start of InitModel
            self.assertIn(b"Initializing", line)
            process.send_signal(signal.SIGINT)
            out, err = process.communicate(timeout=60)
        finally:
            process.kill()
        self.assertEqual(process.returncode, 130, err)
        self.assertIn(b"interrupted", err)
        self.assertNotIn(b"done in", err)


class Interface(unittest.TestCase):
    def test_version_settings_and_a_prompt_from_stdin(self):
        self.assertRegex(run("--version").stdout, r"^velmora-host \d+\.\d+\.\d+\n$")

        listed = tiny("--list-settings", "--set", "top_k=7")
        self.assertEqual(listed.returncode, 0, listed.stderr)
        lines = listed.stdout.splitlines()
        # Every name is one the library knows; the context is the package's default.
        self.assertEqual(len(lines), 21, lines)
        self.assertTrue(all("=" in line for line in lines), lines)
        self.assertIn("top_k=7", lines)
        self.assertIn(f"max_new_tokens={velmora.DEFAULT_CONTEXT_LENGTH}", lines)
        listed = run("transcribe", "--list-settings", "--model", os.path.join(MODELS, "tiny-whisper"))
        self.assertEqual(listed.returncode, 0, listed.stderr)
        unset = [line for line in listed.stdout.splitlines() if "=" not in line]
        self.assertEqual(unset, ["language (not set)", "task (not set)"], listed.stdout)

        piped = subprocess.run([HOST, "--model", os.path.join(MODELS, "tiny-llm"), "--context", "8", "-"],
                               input=PROMPT + "\n", capture_output=True, text=True, timeout=300)
        self.assertEqual(piped.stdout, tiny("--context", "8", PROMPT).stdout)


class Errors(unittest.TestCase):
    def assertFailure(self, result, line):
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("error: " + line, result.stderr)

    def test_failures_say_what_was_given_and_keep_the_library_message(self):
        self.assertFailure(tiny("--set", "temperature=warm", PROMPT), "cannot set temperature=warm: "
                           "An error occurred setting property temperature with value warm: invalid stof argument")
        self.assertFailure(
            run("transcribe", "--model", os.path.join(MODELS, "tiny-whisper"), "--set", "max_new_tokens=x",
                SPEECH.name),
            "cannot set max_new_tokens=x: An error occurred setting property max_new_tokens with value x: ")
        self.assertFailure(tiny("--set", "stop_criteria=early", PROMPT), "cannot set stop_criteria=early\n")
        missing = os.path.join(MODELS, "missing")
        self.assertFailure(run("--model", missing, PROMPT),
                           f"cannot load model '{missing}': The provided model path is not a directory")
        # CompileModel has no handle; its message still reaches the host.
        tiny_llm = os.path.join(MODELS, "tiny-llm")
        self.assertFailure(run("compile", "--model", tiny_llm, "--context", "0"),
                           f"cannot compile model '{tiny_llm}' for CPU: An exception occurred while compiling "
                           "the model: The context length must be greater than 0")

    def test_usage_and_audio_errors(self):
        for args in (["--context", "many"], ["--set", "novalue"], ["tokenize", "--stop", "x", "a"],
                     ["tokenize"], ["transcribe", "--stop", "x", "a.wav"]):
            self.assertEqual(run(*args).returncode, 2, args)
        with tempfile.NamedTemporaryFile(suffix=".wav") as junk:
            junk.write(b"not audio at all" * 10)
            junk.flush()
            result = run("transcribe", "--model", os.path.join(MODELS, "tiny-whisper"), junk.name)
        self.assertFailure(result, f"cannot read audio '{junk.name}': ")


class Transcribe(unittest.TestCase):
    WORDS = {"quick", "brown", "fox", "jumps", "over", "lazy", "dog"}

    def test_speech_in_another_format_rate_and_channel_count(self):
        with tempfile.NamedTemporaryFile(suffix=".flac") as flac:
            subprocess.run(["sox", SPEECH.name, "-r", "44100", "-c", "2", flac.name], check=True)
            result = run("transcribe", "--stats", "--model", os.path.join(MODELS, "whisper-base"), flac.name)
        self.assertEqual(result.returncode, 0, result.stderr)
        heard = set(re.findall(r"[a-z]+", result.stdout.lower()))
        self.assertGreaterEqual(len(self.WORDS & heard), 3, result.stdout)
        self.assertRegex(result.stderr, r"stats: 2\.\d\d s of audio")  # resampled, not stretched


def main():
    global HOST, MODELS, SPEECH
    HOST, MODELS = sys.argv[1], sys.argv[2]
    with tempfile.NamedTemporaryFile(suffix=".wav") as speech:
        subprocess.run(["espeak-ng", "-w", speech.name, "The quick brown fox jumps over the lazy dog."],
                       check=True)
        SPEECH = speech
        unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)


if __name__ == "__main__":
    main()
