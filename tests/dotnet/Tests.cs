// The C# binding's tests, run under Mono: Velmora.Tests.exe LIBRARY MODELS_DIR.
using System;
using System.Collections.Generic;
using System.Globalization;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.CompilerServices;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;
using System.Threading.Tasks;
using Velmora;

static class Tests
{
    const string Prompt = "Once upon a time";
    const long Long = 5000;  // tokens: seconds of generation, unless stopped
    static string models, dir;

    // Seen through the wrapped tables: buffers given back (and DestroyModel), the text a query
    // returned, pieces delivered and runs begun.
    static readonly List<string> released = new List<string>();
    static string queried;
    static int delivered, runs;
    static volatile bool running;  // StreamModel has not returned

    static int Main(string[] args)
    {
        Library.Load(args[0]);
        models = args[1];
        dir = Path.Combine(models, "tiny-llm");
        foreach (object api in new object[] { Library.Llm, Library.Whisper })
            foreach (FieldInfo field in api.GetType().GetFields(BindingFlags.Instance | BindingFlags.NonPublic))
            {
                string name = field.Name;
                object real = field.GetValue(api);
                if (real is Native.ReleaseFn) field.SetValue(api, (Native.ReleaseFn)(p => Note(name, ((Native.ReleaseFn)real)(p))));
                else if (real is Native.FreeStringsFn) field.SetValue(api, (Native.FreeStringsFn)((p, n) => Note(name + " " + n, ((Native.FreeStringsFn)real)(p, n))));
                else if (name == "DestroyModel") field.SetValue(api, (Native.HandleFn)(p => Note(name, ((Native.HandleFn)real)(p))));
            }
        Native.QueryFn query = Library.Llm.QueryModel;
        Library.Llm.QueryModel = (IntPtr handle, byte[] prompt, out IntPtr text) => Seen(query(handle, prompt, out text), text);
        Native.TranscribeFn transcribe = Library.Whisper.QueryModel;
        Library.Whisper.QueryModel = (IntPtr handle, float[] samples, int count, out IntPtr text) => Seen(transcribe(handle, samples, count, out text), text);
        Native.StreamFn stream = Library.Llm.StreamModel;
        Library.Llm.StreamModel = (handle, prompt, onText) =>
        {
            runs++;
            running = true;
            Native.TextFn counting = piece => { Interlocked.Increment(ref delivered); return onText(piece); };
            int status = stream(handle, prompt, counting);
            GC.KeepAlive(counting);
            running = false;
            return status;
        };
        int failed = 0;
        // In this order: CompileModel must be seen before any LLM model exists.
        foreach (Action test in new Action[] { CompileReportsBeforeAnyModelExists, TextAndListsCrossInUtf8AndAreReleased,
                                               StoppingAndEndingAModel, SettingsAndFailuresCarryTheLibraryText, WhisperCancelAndLists })
            try { released.Clear(); test(); Console.WriteLine("ok   " + test.Method.Name); }
            catch (Exception e) { failed++; Console.WriteLine("FAIL " + test.Method.Name + ": " + e); }
        return failed;
    }

    static int Note(string call, int status) { lock (released) released.Add(call); return status; }

    static int Seen(int status, IntPtr text) { queried = Marshal.PtrToStringAnsi(text); return status; }

    static int Count(string call) { lock (released) return released.Count(c => c == call); }

    static void That(bool condition, string what) { if (!condition) throw new Exception("expected: " + what); }

    static void Equal(object expected, object actual, string what) { That(Equals(expected, actual), what + " <" + expected + "> but got <" + actual + ">"); }

    static string Join<T>(IEnumerable<T> items) { return string.Join("|", items); }

    static E Throws<E>(Action action, string what) where E : Exception
    {
        try { action(); } catch (E e) { return e; }
        throw new Exception(what + ": expected " + typeof(E).Name);
    }

    static LlmModel Tiny() { return new LlmModel(dir, Device.Cpu, 16); }

    // Before any LLM model the library has no error function: the binding must give it one.
    static void CompileReportsBeforeAnyModelExists()
    {
        var e = Throws<VelmoraException>(() => LlmModel.Compile(dir, Device.Cpu, 0), "compile");
        That(e.Status == 1 && e.Message == "An exception occurred while compiling the model: The context length must be greater than 0",
             "the library's report: " + e.Message);
        LlmModel.Compile(dir, Device.Cpu, 8);
    }

    static void TextAndListsCrossInUtf8AndAreReleased()
    {
        using (LlmModel model = Tiny())
        {
            string text = model.Generate(Prompt);
            var pieces = model.Stream(Prompt).ToList();
            That(pieces.Count > 4 && text == string.Concat(pieces), "the pieces make up " + text);
            model.SetStopStrings(new List<string> { "a", "é✓" });
            model.SetStopTokenIds(new long[] { -1, 2, 3 });  // 2, the end-of-text id, must stay
            Equal("a|é✓ -1|2|3", Join(model.GetStopStrings()) + " " + Join(model.GetStopTokenIds()), "stop lists");
            model.SetStopStrings(Enumerable.Empty<string>());
            Equal("ids", Throws<ArgumentException>(() => model.SetStopTokenIds(new long[0]), "without the end-of-text id").ParamName, "named");
            That(model.GetStopStrings().Count == 0 && model.GetStopTokenIds().Count == 3, "emptied");
            Equal("strings", Throws<ArgumentException>(() => model.SetStopStrings(new[] { "a\0b" }), "embedded NUL").ParamName, "named");
            Equal("strings", Throws<ArgumentException>(() => model.SetStopStrings(new[] { "a", "" }), "empty").ParamName, "named");
            That(model.Tokenize("café ✓").Length > 1 && model.Tokenize("").Length == 0, "tokens");
            // Nothing to give back for an empty list; an empty tokenization is a buffer all the same.
            Equal("FreeQueryResult|FreeConfigProperty|FreeStopStrings 2|FreeStopTokens|FreeConfigProperty|FreeStopTokens|FreeTokens|FreeTokens",
                  Join(released), "releases");

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
            try { Equal("c|é!", Join(model.Stream(Prompt)), "split character"); }
            finally { Library.Llm.StreamModel = real; }
        }
    }

    static void StoppingAndEndingAModel()
    {
        using (LlmModel model = Tiny())
        using (var source = new CancellationTokenSource())
        {
            model.Settings.Set("ignore_eos", true);
            model.Settings.Set("max_new_tokens", Long);
            int seen = delivered = 0;
            foreach (string piece in model.Stream(Prompt)) if (++seen == 2) break;
            That(!running && delivered < Long / 2, "break stopped the generation before returning");
            // A cancelled token stops the generation and throws from the next step, after the pieces so far.
            seen = 0;
            Throws<OperationCanceledException>(() => { foreach (string piece in model.Stream(Prompt, source.Token)) if (++seen == 2) source.Cancel(); }, "stream");
            That(!running && seen == 2, "stopped at the step after the cancel");
            int begun = runs;
            Throws<OperationCanceledException>(() => model.Stream(Prompt, source.Token).Any(), "stream of a cancelled token");
            Throws<OperationCanceledException>(() => model.Generate(Prompt, source.Token), "generation of a cancelled token");
            That(runs == begun, "a cancelled token generates nothing");
            // Cancelled as the generation starts (a lone Cancel then is forgotten), it still stops; the
            // returned text is given back.
            using (var soon = new CancellationTokenSource(TimeSpan.FromMilliseconds(1)))
                Throws<OperationCanceledException>(() => model.Generate(Prompt, soon.Token), "cancelled at the start");
            That(model.Tokenize(queried).Length < Long / 2 && Count("FreeQueryResult") == 1, "stopped early and released");
            using (var soon = new CancellationTokenSource(TimeSpan.FromMilliseconds(300)))
            {
                Task<string> task = model.GenerateAsync(Prompt, soon.Token);
                Throws<OperationCanceledException>(() => task.GetAwaiter().GetResult(), "awaited");
                That(task.IsCanceled && model.Tokenize(queried).Length < Long / 2, "a cancelled task, stopped early");
            }

            // Left to their finalizers, an enumerator stops its generation and a model ends.
            delivered = 0;
            LeaveBehind(model);
            GC.Collect();
            GC.WaitForPendingFinalizers();
            model.Tokenize("x");  // waits for the abandoned run
            That(delivered < Long / 2 && Count("DestroyModel") == 1, "the finalizers stopped and ended");

            // Cancel does not wait; the generation returns the text so far (repeated: one before the run is forgotten).
            string text = null;
            var worker = new Thread(() => text = model.Generate(Prompt));
            worker.Start();
            while (!worker.Join(20)) model.Cancel();
            That(model.Tokenize(text).Length < Long / 2, "the text so far");

            // A call from inside its own loop would wait for itself; Dispose there ends the model after the run.
            delivered = seen = 0;
            foreach (string piece in model.Stream(Prompt))
                if (seen++ == 0) { Throws<InvalidOperationException>(() => model.Tokenize("x"), "reentrant call"); model.Dispose(); }
            That(!running && delivered < Long / 2 && Count("DestroyModel") == 2, "ended in a stream");
            model.Dispose();
            Throws<ObjectDisposedException>(() => model.Generate(Prompt), "disposed");
            model.Cancel();  // harmless
            Equal(2, Count("DestroyModel"), "ended once");
        }
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    static void LeaveBehind(LlmModel model) { Tiny().Tokenize("x"); model.Stream(Prompt).GetEnumerator().MoveNext(); }

    static void SettingsAndFailuresCarryTheLibraryText()
    {
        using (LlmModel model = Tiny(), other = Tiny())
        {
            // Numbers go out and come back in the invariant culture, whatever the thread's.
            Thread.CurrentThread.CurrentCulture = new CultureInfo("de-DE");
            model.Settings.Set("top_p", 0.25);
            model.Settings.Set("top_k", 7L);
            model.Settings.Set("do_sample", true);
            That(model.Settings.GetDouble("top_p") == 0.25 && model.Settings.GetInt64("top_k") == 7 && model.Settings.GetBoolean("do_sample"),
                 "typed round trips");
            Thread.CurrentThread.CurrentCulture = CultureInfo.InvariantCulture;
            That(!model.Settings.TryGetValue("seed", out _), "unknown name");
            Equal(-1L, model.Settings.GetInt64("max_length"), "the unlimited size");
            Throws<ArgumentOutOfRangeException>(() => model.Settings.Set("temperature", double.NaN), "NaN");

            // A message goes to the thread whose call failed, though the other model fails on another
            // thread between this one's message and its return.
            Native.SetPropertyFn real = Library.Llm.SetConfigProperty;
            bool nested = false;
            VelmoraException e = null, second = null;
            Library.Llm.SetConfigProperty = (handle, name, value) =>
            {
                int status = real(handle, name, value);
                if (!nested)
                {
                    nested = true;
                    Task.Run(() => second = Throws<VelmoraException>(() => other.Settings["top_k"] = "bbb", "other")).Wait();
                }
                return status;
            };
            try { e = Throws<VelmoraException>(() => model.Settings["top_k"] = "é✓", "refused value"); }
            finally { Library.Llm.SetConfigProperty = real; }
            That(e.Status == 1 && e.Message.EndsWith("value é✓: invalid stoi argument"), "own message: " + e.Message);
            That(second.Message.EndsWith("value bbb: invalid stoi argument"), "own message: " + second.Message);
            Equal("value", Throws<ArgumentException>(() => model.Settings["stop_criteria"] = "early", "no criterion").ParamName, "named");
            Library.Llm.SetConfigProperty = (handle, name, value) => 1;  // a refusal without a word
            try { e = Throws<VelmoraException>(() => model.Settings["top_k"] = "5", "refused silently"); }
            finally { Library.Llm.SetConfigProperty = real; }
            Equal("SetConfigProperty failed with status 1 and no message", e.Message, "no message");

            // A failed stream throws from the loop: the runtime's sentence in one line, without its source place.
            model.Settings.Set("do_sample", false);
            model.Settings["num_return_sequences"] = "3";
            e = Throws<VelmoraException>(() => model.Stream(Prompt).ToList(), "stream");
            That(e.Status == 1 && e.Message.StartsWith("Failed to validate config: ") && !e.Message.Contains("failed at")
                 && e.LibraryMessage.Contains("failed at"), "one line: " + e.Message);

            // Foreseeable mistakes are refused before the library, naming the argument.
            Equal("prompt", Throws<ArgumentException>(() => model.Generate(""), "empty prompt").ParamName, "empty prompt");
            Throws<ArgumentException>(() => model.Settings["eos_token_id"] = "7", "end-of-text id not a stop id");
            var missing = Path.Combine(models, "missing");
            Equal("modelDir", Throws<ArgumentException>(() => new LlmModel(""), "empty").ParamName, "named");
            That(Throws<DirectoryNotFoundException>(() => new WhisperModel(missing), "missing").Message.Contains("'" + missing + "' does not exist"),
                 "the missing directory named");
            e = Throws<VelmoraException>(() => new WhisperModel(models), "no model files");
            That(e.Message.StartsWith("cannot load model '" + models + "': ") && !e.Message.Contains("\n") && e.LibraryMessage.Contains("\n"),
                 "one line naming the directory: " + e.Message);
        }
    }

    static void WhisperCancelAndLists()
    {
        using (var model = new WhisperModel(Path.Combine(models, "tiny-whisper")))
        {
            IReadOnlyDictionary<string, long> map = model.GetLanguageMap();
            That(map.ContainsKey("<|en|>") && Count("FreeQueryResult") == map.Count && Count("FreeLangToId") == 1,
                 "each key and the array released: " + Join(released));
            model.SetLanguageMap(new Dictionary<string, long> { { "<|zz|>", 7 }, { "<|é|>", -2 } });
            Equal("[<|zz|>, 7]|[<|é|>, -2]", Join(model.GetLanguageMap()), "map round trip");
            model.SetSuppressTokens(new long[] { 9, 3, 9 });
            model.SetBeginSuppressTokens(new long[0]);
            Equal("9|3|9 ", Join(model.GetSuppressTokens()) + " " + Join(model.GetBeginSuppressTokens()), "suppress lists");
            Equal(1, Count("FreeSuppressTokens"), "ids released, nothing for an empty list");

            Throws<ArgumentException>(() => model.Settings["language"] = "<|en|>", "no longer in the map");
            Throws<ArgumentException>(() => model.Settings["task"] = "transcribe it", "not a task");
            model.Settings["max_new_tokens"] = " +01";  // read as 1 by the library
            Throws<ArgumentException>(() => model.Settings.Set("return_timestamps", true), "timestamps that never end");
            Throws<ArgumentException>(() => model.Transcribe(new float[200]), "too short");
            Throws<ArgumentException>(() => model.Transcribe(new float[] { 0, float.NaN }.Concat(new float[300]).ToArray()), "NaN");
            // Two channels of 0.5 and -0.25 at 8 kHz, in the extensible layout and without a length, as tools
            // write more channels and streams: one of 0.125 at 16 kHz.
            string wav = Path.GetTempFileName();
            using (var w = new BinaryWriter(File.Create(wav)))
            {
                w.Write(Encoding.ASCII.GetBytes("RIFF\0\0\0\0WAVEfmt ")); w.Write(40); w.Write((ushort)0xFFFE); w.Write((short)2);
                w.Write(8000); w.Write(32000); w.Write((short)4); w.Write((short)16); w.Write((short)22); w.Write((short)16);
                w.Write(3); w.Write((short)1); w.Write(new byte[14]); w.Write(Encoding.ASCII.GetBytes("data")); w.Write(-1);
                for (int i = 0; i < 8000; i++) { w.Write((short)16384); w.Write((short)-8192); }
            }
            float[] read = WaveFile.Read(wav);
            That(read.Length == 16000 && Math.Abs(read[8000] - 0.125f) < 1e-3, "mixed and resampled: " + read.Length + ", " + read[8000]);
            Equal(model.Transcribe(read), model.TranscribeFile(wav), "from the file");
            Throws<InvalidDataException>(() => WaveFile.Read(typeof(Tests).Assembly.Location), "not a WAV file");
            File.WriteAllBytes(wav, Encoding.ASCII.GetBytes("RIFF\0\0\0\0WAVEfmt \x0e\0\0\0" + new string('\0', 14)));
            Throws<InvalidDataException>(() => WaveFile.Read(wav), "a damaged format chunk");
            File.Delete(wav);
            model.Settings.Set("max_new_tokens", 400L);  // the random model never ends on its own
            var silence = new float[16000];
            string full = model.Transcribe(silence);
            Equal(full, model.TranscribeAsync(silence).Result, "awaited");
            using (var source = new CancellationTokenSource(TimeSpan.FromMilliseconds(100)))
                Throws<OperationCanceledException>(() => model.Transcribe(silence, source.Token), "cancelled");
            That(queried.Length < full.Length, "stopped with " + queried.Length + " of " + full.Length + " characters");
        }
    }
}
