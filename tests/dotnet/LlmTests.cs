using System;
using System.Collections.Generic;
using System.IO;
using System.Linq;
using System.Runtime.CompilerServices;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;
using Velmora;

static class LlmTests
{
    const string Prompt = "Once upon a time";
    const long Long = 5000;  // tokens: seconds of generation, unless stopped

    static LlmModel Tiny(int contextLength = 16)
    {
        return new LlmModel(Path.Combine(Runner.Models, "tiny-llm"), Device.Cpu, contextLength);
    }

    /// <summary>Wraps StreamModel to see what the binding cannot hide: the pieces the library
    /// delivered and whether StreamModel has returned.</summary>
    sealed class Watched : IDisposable
    {
        readonly Native.StreamFn real = Library.Llm.StreamModel;
        public int Delivered;
        public volatile bool Running;

        public Watched()
        {
            Library.Llm.StreamModel = (handle, prompt, onText) =>
            {
                Running = true;
                Native.TextFn counting = piece => { Interlocked.Increment(ref Delivered); return onText(piece); };
                int status = real(handle, prompt, counting);
                GC.KeepAlive(counting);
                Running = false;
                return status;
            };
        }

        public void Dispose() { Library.Llm.StreamModel = real; }
    }

    // Must run before any LLM model exists: the library has no error function until then.
    [Test]
    static void CompileReportsBeforeAnyModelExists()
    {
        var e = Check.Throws<VelmoraException>(() => LlmModel.Compile(Path.Combine(Runner.Models, "tiny-llm"), Device.Cpu, 0), "compile");
        Check.Equal("An exception occurred while compiling the model: The context length must be greater than 0", e.Message, "message");
        Check.Equal(1, e.Status, "status");
        LlmModel.Compile(Path.Combine(Runner.Models, "tiny-llm"), Device.Cpu, 8);
    }

    [Test]
    static void StreamPiecesMakeUpTheGeneratedText()
    {
        using (var releases = new Releases())
        using (LlmModel model = Tiny())
        {
            string text = model.Generate(Prompt);
            var pieces = model.Stream(Prompt).ToList();
            Check.That(pieces.Count > 4, "several pieces");
            Check.Equal(text, string.Concat(pieces), "stream text");
            Check.Equal(1, releases.Count("FreeQueryResult"), "texts released");

            // A character split between two pieces arrives whole.
            Native.StreamFn real = Library.Llm.StreamModel;
            Library.Llm.StreamModel = (handle, prompt, onText) =>
            {
                foreach (byte[] piece in new[] { new byte[] { 0x63, 0xc3, 0 }, new byte[] { 0xa9, 0x21, 0 } })
                {
                    IntPtr copy = Marshal.AllocHGlobal(piece.Length);
                    Marshal.Copy(piece, 0, copy, piece.Length);
                    onText(copy);
                    Marshal.FreeHGlobal(copy);
                }
                return 0;
            };
            try { Check.Sequence(new[] { "c", "é!" }, model.Stream(Prompt), "split character"); }
            finally { Library.Llm.StreamModel = real; }
        }
    }

    [Test]
    static void LeavingAStreamEarlyOrCancellingStopsTheGeneration()
    {
        using (var watched = new Watched())
        using (LlmModel model = Tiny())
        {
            model.Settings.Set("ignore_eos", true);
            model.Settings.Set("max_new_tokens", Long);
            int seen = 0;
            foreach (string piece in model.Stream(Prompt)) if (++seen == 2) break;
            Check.That(!watched.Running && watched.Delivered < Long / 2, "break stopped the generation before returning");

            using (var source = new CancellationTokenSource())
            {
                seen = 0;
                foreach (string piece in model.Stream(Prompt, source.Token)) if (++seen == 2) source.Cancel();
                Check.That(!watched.Running && seen < Long / 2, "a cancelled token ended the sequence");
                Check.That(!model.Stream(Prompt, source.Token).Any(), "an already cancelled token generates nothing");
            }

            // Abandoned mid-way: the finalizer stops it.
            watched.Delivered = 0;
            AbandonAfterOnePiece(model);
            GC.Collect();
            GC.WaitForPendingFinalizers();
            model.Tokenize("x");  // waits for the abandoned run
            Check.That(watched.Delivered < Long / 2, "the finalizer stopped the generation");

            // Cancel from another thread, never waiting for the generation. A cancel landing
            // before the run starts is forgotten: repeat until it ends.
            model.Settings.Set("max_new_tokens", Long);
            string text = null;
            var worker = new Thread(() => text = model.Generate(Prompt));
            worker.Start();
            while (!worker.Join(20)) model.Cancel();
            Check.That(model.Tokenize(text).Length < Long / 2, "the text so far");

            // Calling the model from inside its own loop would wait for itself.
            foreach (string piece in model.Stream(Prompt))
            {
                Check.Throws<InvalidOperationException>(() => model.Tokenize("x"), "reentrant call");
                break;
            }
        }
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    static void AbandonAfterOnePiece(LlmModel model)
    {
        IEnumerator<string> pieces = model.Stream(Prompt).GetEnumerator();
        pieces.MoveNext();
    }

    [Test]
    static void SettingsRoundTripAndRefusalsCarryTheLibraryText()
    {
        using (LlmModel model = Tiny())
        {
            // Numbers go out and come back in the invariant culture, whatever the thread's.
            Thread.CurrentThread.CurrentCulture = new System.Globalization.CultureInfo("de-DE");
            model.Settings["temperature"] = "0.7";
            model.Settings.Set("top_p", 0.25);
            model.Settings.Set("top_k", 7L);
            model.Settings.Set("do_sample", true);
            Check.That(model.Settings.GetDouble("temperature") == 0.7 && model.Settings.GetDouble("top_p") == 0.25
                       && model.Settings.GetInt64("top_k") == 7 && model.Settings.GetBoolean("do_sample"), "typed round trips");
            Thread.CurrentThread.CurrentCulture = System.Globalization.CultureInfo.InvariantCulture;
            string ignored;
            Check.That(!model.Settings.TryGetValue("seed", out ignored), "unknown name");

            var e = Check.Throws<VelmoraException>(() => model.Settings["top_k"] = "many", "refused value");
            Check.Equal("An error occurred setting property top_k with value many: invalid stoi argument", e.Message, "message");
            Check.Equal(1, e.Status, "status");
            e = Check.Throws<VelmoraException>(() => model.Settings["stop_criteria"] = "early", "refused silently");
            Check.Equal("SetConfigProperty failed with status 1 and no message", e.Message, "no message");

            // Settings the runtime refuses together fail the next generation.
            model.Settings.Set("do_sample", false);
            model.Settings["num_return_sequences"] = "3";
            e = Check.Throws<VelmoraException>(() => model.Generate(Prompt), "invalid settings");
            Check.That(e.Status == 2 && e.Message.StartsWith("Failed to validate config: "), "status 2: " + e.Message);
            e = Check.Throws<VelmoraException>(() => model.Stream(Prompt).ToList(), "stream");
            Check.That(e.Status == 1 && e.Message.Contains("Failed to validate config: "), "stream failure: " + e.Message);
        }
    }

    // A message goes to the thread whose call failed: here the second model fails on another thread
    // after the first one's message has arrived and before its call has returned.
    [Test]
    static void EachFailureMessageReachesTheThreadThatCausedIt()
    {
        using (LlmModel first = Tiny(), second = Tiny())
        {
            LlmApi api = Library.Llm;
            Native.SetPropertyFn real = api.SetConfigProperty;
            bool nested = false;
            VelmoraException other = null;
            api.SetConfigProperty = (handle, name, value) =>
            {
                int status = real(handle, name, value);
                if (status != 0 && !nested)
                {
                    nested = true;
                    var thread = new Thread(() => other = Check.Throws<VelmoraException>(() => second.Settings["top_k"] = "bbb", "second"));
                    thread.Start();
                    thread.Join();
                }
                return status;
            };
            try
            {
                var e = Check.Throws<VelmoraException>(() => first.Settings["top_k"] = "aaa", "first");
                Check.That(e.Message.EndsWith("value aaa: invalid stoi argument"), "own message: " + e.Message);
                Check.That(other.Message.EndsWith("value bbb: invalid stoi argument"), "own message: " + other.Message);
            }
            finally { api.SetConfigProperty = real; }
        }
    }

    [Test]
    static void StopListsAndTokensRoundTripInUtf8AndAreReleased()
    {
        using (var releases = new Releases())
        using (LlmModel model = Tiny())
        {
            model.StopStrings = new[] { "b", "a", "b", "é✓" };
            Check.Sequence(new[] { "a", "b", "é✓" }, model.StopStrings, "stop strings");
            model.StopTokenIds = new long[] { 5, -1, 5, 3 };
            Check.Sequence(new long[] { -1, 3, 5 }, model.StopTokenIds, "stop ids");
            model.StopStrings = new string[0];
            model.StopTokenIds = new long[0];
            Check.That(model.StopStrings.Length == 0 && model.StopTokenIds.Length == 0, "emptied");
            Check.Sequence(new[] { "FreeStopStrings 3", "FreeStopTokens" }, releases.Calls, "releases");
            Check.Throws<ArgumentException>(() => model.StopStrings = new[] { "a\0b" }, "embedded NUL");

            // The library sees the text's UTF-8 bytes and the ids it gives come back unchanged.
            Native.TokenizeFn real = Library.Llm.Tokenize;
            byte[] sent = null;
            long[] given = null;
            Library.Llm.Tokenize = (IntPtr handle, byte[] text, out IntPtr ids, out UIntPtr count) =>
            {
                int status = real(handle, sent = text, out ids, out count);
                given = new long[status == 0 ? (int)count : 0];
                if (status == 0) Marshal.Copy(ids, given, 0, given.Length);
                return status;
            };
            long[] tokens;
            try { tokens = model.Tokenize("café ✓"); }
            finally { Library.Llm.Tokenize = real; }
            Check.That(tokens.Length > 1, "ids");
            Check.Sequence(given, tokens, "ids");
            Check.Sequence(new byte[] { 0x63, 0x61, 0x66, 0xc3, 0xa9, 0x20, 0xe2, 0x9c, 0x93, 0 }, sent, "UTF-8");
            Check.Equal(0, model.Tokenize("").Length, "empty");
            Check.Equal(2, releases.Count("FreeTokens"), "every tokenize releases, an empty one too");
        }
    }

    [Test]
    static void ModelsEndExactlyOnce()
    {
        using (var releases = new Releases())
        {
            LlmModel model = Tiny();
            model.Dispose();
            model.Dispose();
            Check.Throws<ObjectDisposedException>(() => model.Generate(Prompt), "disposed");
            model.Cancel();  // harmless
            Check.Equal(1, releases.Count("DestroyModel"), "double Dispose");

            DropModel();
            GC.Collect();
            GC.WaitForPendingFinalizers();
            Check.Equal(2, releases.Count("DestroyModel"), "finalizer");

            // Collections while a stream runs; then Dispose from inside the loop ends it once.
            model = Tiny(64);
            int seen = 0;
            foreach (string piece in model.Stream(Prompt))
            {
                GC.Collect();
                GC.WaitForPendingFinalizers();
                if (++seen == 3) model.Dispose();
            }
            Check.Equal(3, releases.Count("DestroyModel"), "disposed during a stream");
        }
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    static void DropModel() { Tiny().Tokenize("x"); }
}
