using System;
using System.Collections.Generic;
using System.Globalization;
using System.IO;
using System.Linq;
using System.Runtime.CompilerServices;
using System.Runtime.InteropServices;
using System.Threading;
using Velmora;

static class LlmTests
{
    const string Prompt = "Once upon a time";
    const long Long = 5000;  // tokens: seconds of generation, unless stopped
    static readonly string Dir = Path.Combine(Runner.Models, "tiny-llm");

    static LlmModel Tiny(int contextLength = 16) { return new LlmModel(Dir, Device.Cpu, contextLength); }

    // Before any LLM model the library has no error function: the binding must give it one.
    internal static void CompileReportsBeforeAnyModelExists()
    {
        var e = Check.Throws<VelmoraException>(() => LlmModel.Compile(Dir, Device.Cpu, 0), "compile");
        Check.Equal("An exception occurred while compiling the model: The context length must be greater than 0", e.Message, "message");
        Check.Equal(1, e.Status, "status");
        LlmModel.Compile(Dir, Device.Cpu, 8);
    }

    internal static void TextAndListsCrossInUtf8AndAreReleased()
    {
        using (var releases = new Releases())
        using (LlmModel model = Tiny())
        {
            string text = model.Generate(Prompt);
            var pieces = model.Stream(Prompt).ToList();
            Check.That(pieces.Count > 4 && text == string.Concat(pieces), "the pieces make up " + text);
            model.StopStrings = new[] { "a", "é✓" };
            model.StopTokenIds = new long[] { -1, 3 };
            Check.Equal("a|é✓ -1|3", Check.Join(model.StopStrings) + " " + Check.Join(model.StopTokenIds), "stop lists");
            model.StopStrings = new string[0];
            model.StopTokenIds = new long[0];
            Check.That(model.StopStrings.Length == 0 && model.StopTokenIds.Length == 0, "emptied");
            Check.Throws<ArgumentException>(() => model.StopStrings = new[] { "a\0b" }, "embedded NUL");
            Check.That(model.Tokenize("café ✓").Length > 1 && model.Tokenize("").Length == 0, "tokens");
            // Nothing to give back for an empty list; an empty tokenization is a buffer all the same.
            Check.Equal("FreeQueryResult|FreeStopStrings 2|FreeStopTokens|FreeTokens|FreeTokens", Check.Join(releases.Calls), "releases");

            // A character split between two pieces arrives whole.
            Native.StreamFn real = Library.Llm.StreamModel;
            Library.Llm.StreamModel = (handle, prompt, onText) =>
            {
                    GCHandle bytes = GCHandle.Alloc(new byte[] { 0x63, 0xc3, 0, 0xa9, 0x21, 0 }, GCHandleType.Pinned);
                onText(bytes.AddrOfPinnedObject());
                onText(bytes.AddrOfPinnedObject() + 3);
                bytes.Free();
                return 0;
            };
            try { Check.Equal("c|é!", Check.Join(model.Stream(Prompt)), "split character"); }
            finally { Library.Llm.StreamModel = real; }
        }
    }

    static int delivered;  // pieces the library gave, whatever the binding shows
    static volatile bool running;  // StreamModel has not returned

    internal static void StoppingAndEndingAModel()
    {
        Native.StreamFn real = Library.Llm.StreamModel;
        Library.Llm.StreamModel = (handle, prompt, onText) =>
        {
            running = true;
            Native.TextFn counting = piece => { Interlocked.Increment(ref delivered); return onText(piece); };
            int status = real(handle, prompt, counting);
            GC.KeepAlive(counting);
            running = false;
            return status;
        };
        try
        {
            using (var releases = new Releases())
            using (LlmModel model = Tiny())
            using (var source = new CancellationTokenSource())
            {
                model.Settings.Set("ignore_eos", true);
                model.Settings.Set("max_new_tokens", Long);
                int seen = 0;
                foreach (string piece in model.Stream(Prompt)) if (++seen == 2) break;
                Check.That(!running && delivered < Long / 2, "break stopped the generation before returning");
                seen = 0;
                foreach (string piece in model.Stream(Prompt, source.Token)) if (++seen == 2) source.Cancel();
                Check.That(!running && seen < Long / 2, "a cancelled token ended the sequence");
                Check.That(!model.Stream(Prompt, source.Token).Any(), "an already cancelled token generates nothing");

                delivered = 0;
                AbandonAfterOnePiece(model);
                GC.Collect();
                GC.WaitForPendingFinalizers();
                model.Tokenize("x");  // waits for the abandoned run
                Check.That(delivered < Long / 2, "the finalizer stopped the generation");

                // Cancel never waits for the generation; one landing before the run starts is forgotten.
                string text = null;
                var worker = new Thread(() => text = model.Generate(Prompt));
                worker.Start();
                while (!worker.Join(20)) model.Cancel();
                Check.That(model.Tokenize(text).Length < Long / 2, "the text so far");

                // Calling the model from inside its own loop would wait for itself; disposing it there
                // stops the generation and ends the model once it has returned.
                delivered = seen = 0;
                foreach (string piece in model.Stream(Prompt))
                    if (seen++ == 0)
                    {
                        Check.Throws<InvalidOperationException>(() => model.Tokenize("x"), "reentrant call");
                        model.Dispose();
                    }
                Check.That(!running && delivered < Long / 2 && releases.Count("DestroyModel") == 1, "ended in a stream");
                model.Dispose();
                Check.Throws<ObjectDisposedException>(() => model.Generate(Prompt), "disposed");
                model.Cancel();  // harmless
                DropModel();
                GC.Collect();
                GC.WaitForPendingFinalizers();
                Check.Equal(2, releases.Count("DestroyModel"), "Dispose again, then the finalizer");
            }
        }
        finally { Library.Llm.StreamModel = real; }
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    static void AbandonAfterOnePiece(LlmModel model) { model.Stream(Prompt).GetEnumerator().MoveNext(); }

    [MethodImpl(MethodImplOptions.NoInlining)]
    static void DropModel() { Tiny().Tokenize("x"); }

    internal static void SettingsAndFailuresCarryTheLibraryText()
    {
        using (LlmModel model = Tiny(), other = Tiny())
        {
            // Numbers go out and come back in the invariant culture, whatever the thread's.
            Thread.CurrentThread.CurrentCulture = new CultureInfo("de-DE");
            model.Settings["temperature"] = "0.7";
            model.Settings.Set("top_p", 0.25);
            model.Settings.Set("top_k", 7L);
            model.Settings.Set("do_sample", true);
            Check.That(model.Settings.GetDouble("temperature") == 0.7 && model.Settings.GetDouble("top_p") == 0.25
                       && model.Settings.GetInt64("top_k") == 7 && model.Settings.GetBoolean("do_sample"), "typed round trips");
            Thread.CurrentThread.CurrentCulture = CultureInfo.InvariantCulture;
            string ignored;
            Check.That(!model.Settings.TryGetValue("seed", out ignored), "unknown name");

            // A message goes to the thread whose call failed: here the other model fails on another
            // thread after this one's message has arrived and before its call has returned.
            Native.SetPropertyFn real = Library.Llm.SetConfigProperty;
            byte[] sent = null;
            VelmoraException e = null, second = null;
            Library.Llm.SetConfigProperty = (handle, name, value) =>
            {
                int status = real(handle, name, value);
                if (sent != null) return status;
                sent = value;
                var thread = new Thread(() => second = Check.Throws<VelmoraException>(() => other.Settings["top_k"] = "bbb", "other"));
                thread.Start();
                thread.Join();
                return status;
            };
            try { e = Check.Throws<VelmoraException>(() => model.Settings["top_k"] = "é✓", "refused value"); }
            finally { Library.Llm.SetConfigProperty = real; }
            Check.Equal("c3|a9|e2|9c|93|0", Check.Join(sent.Select(b => b.ToString("x"))), "UTF-8 sent");
            Check.That(e.Status == 1 && e.Message.EndsWith("value é✓: invalid stoi argument"), "own message: " + e.Message);
            Check.That(second.Message.EndsWith("value bbb: invalid stoi argument"), "own message: " + second.Message);
            e = Check.Throws<VelmoraException>(() => model.Settings["stop_criteria"] = "early", "refused silently");
            Check.Equal("SetConfigProperty failed with status 1 and no message", e.Message, "no message");

            // Settings the runtime refuses together fail the next generation.
            model.Settings.Set("do_sample", false);
            model.Settings["num_return_sequences"] = "3";
            e = Check.Throws<VelmoraException>(() => model.Generate(Prompt), "invalid settings");
            Check.That(e.Status == 2 && e.Message.StartsWith("Failed to validate config: "), "status 2: " + e.Message);
            e = Check.Throws<VelmoraException>(() => model.Stream(Prompt).ToList(), "stream");
            Check.That(e.Message.StartsWith("Failed to validate config: "), "stream failure: " + e.Message);
        }
    }
}
