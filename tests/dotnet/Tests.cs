// The C# binding's tests, run under Mono: Velmora.Tests.exe LIBRARY MODELS_DIR.
using System;
using System.Collections.Generic;
using System.Globalization;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.CompilerServices;
using System.Runtime.InteropServices;
using System.Threading;
using System.Threading.Tasks;
using Velmora;

/// <summary>Counts calls of the release slots (and DestroyModel) of both tables while it lives,
/// so a test sees every buffer given back exactly once.</summary>
sealed class Releases : IDisposable
{
    Action restore = delegate { };
    public readonly List<string> Calls = new List<string>();

    public Releases()
    {
        foreach (object api in new object[] { Library.Llm, Library.Whisper })
            foreach (FieldInfo field in api.GetType().GetFields(BindingFlags.Instance | BindingFlags.NonPublic))
            {
                string name = field.Name;
                object real = field.GetValue(api);
                Delegate counting;
                if (real is Native.ReleaseFn) counting = (Native.ReleaseFn)(p => Note(name, ((Native.ReleaseFn)real)(p)));
                else if (real is Native.FreeStringsFn) counting = (Native.FreeStringsFn)((p, n) => Note(name + " " + n, ((Native.FreeStringsFn)real)(p, n)));
                else if (name == "DestroyModel") counting = (Native.HandleFn)(p => Note(name, ((Native.HandleFn)real)(p)));
                else continue;
                field.SetValue(api, counting);
                restore += () => field.SetValue(api, real);
            }
    }

    int Note(string call, int status) { lock (Calls) Calls.Add(call); return status; }

    public int Count(string call) { lock (Calls) return Calls.FindAll(c => c == call).Count; }

    public void Dispose() { restore(); }
}

static class Tests
{
    const string Prompt = "Once upon a time";
    const long Long = 5000;  // tokens: seconds of generation, unless stopped
    static string models, dir;

    static int delivered, runs;  // pieces the library gave and generations begun, whatever the binding shows
    static volatile bool running;  // StreamModel has not returned

    static int Main(string[] args)
    {
        Library.Load(args[0]);
        models = args[1];
        dir = Path.Combine(models, "tiny-llm");
        // Wrapped for the whole run, to see what the binding cannot hide.
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
            try { test(); Console.WriteLine("ok   " + test.Method.Name); }
            catch (Exception e) { failed++; Console.WriteLine("FAIL " + test.Method.Name + ": " + e); }
        return failed;
    }

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
        using (var releases = new Releases())
        using (LlmModel model = Tiny())
        {
            string text = model.Generate(Prompt);
            var pieces = model.Stream(Prompt).ToList();
            That(pieces.Count > 4 && text == string.Concat(pieces), "the pieces make up " + text);
            model.StopStrings = new[] { "a", "é✓" };
            model.StopTokenIds = new long[] { -1, 2, 3 };  // 2, the end-of-text id, must stay
            Equal("a|é✓ -1|2|3", Join(model.StopStrings) + " " + Join(model.StopTokenIds), "stop lists");
            model.StopStrings = new string[0];
            Throws<ArgumentException>(() => model.StopTokenIds = new long[0], "without the end-of-text id");
            That(model.StopStrings.Length == 0 && model.StopTokenIds.Length == 3, "emptied");
            Throws<ArgumentException>(() => model.StopStrings = new[] { "a\0b" }, "embedded NUL");
            That(model.Tokenize("café ✓").Length > 1 && model.Tokenize("").Length == 0, "tokens");
            // Nothing to give back for an empty list; an empty tokenization is a buffer all the same.
            Equal("FreeQueryResult|FreeConfigProperty|FreeStopStrings 2|FreeStopTokens|FreeConfigProperty|FreeStopTokens|FreeTokens|FreeTokens",
                  Join(releases.Calls), "releases");

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
        using (var releases = new Releases())
        using (LlmModel model = Tiny())
        using (var source = new CancellationTokenSource())
        {
            model.Settings.Set("ignore_eos", true);
            model.Settings.Set("max_new_tokens", Long);
            int seen = 0;
            foreach (string piece in model.Stream(Prompt)) if (++seen == 2) break;
            That(!running && delivered < Long / 2, "break stopped the generation before returning");
            seen = 0;
            foreach (string piece in model.Stream(Prompt, source.Token)) if (++seen == 2) source.Cancel();
            That(!running && seen < Long / 2, "a cancelled token ended the sequence");
            int begun = runs;
            That(!model.Stream(Prompt, source.Token).Any() && runs == begun, "an already cancelled token generates nothing");

            // Left to their finalizers, an enumerator stops its generation and a model ends.
            delivered = 0;
            LeaveBehind(model);
            GC.Collect();
            GC.WaitForPendingFinalizers();
            model.Tokenize("x");  // waits for the abandoned run
            That(delivered < Long / 2 && releases.Count("DestroyModel") == 1, "the finalizers stopped and ended");

            // Cancel never waits for the generation; one landing before the run starts is forgotten.
            string text = null;
            var worker = new Thread(() => text = model.Generate(Prompt));
            worker.Start();
            while (!worker.Join(20)) model.Cancel();
            That(model.Tokenize(text).Length < Long / 2, "the text so far");

            // Calling the model from inside its own loop would wait for itself; disposing it there
            // stops the generation and ends the model once it has returned.
            delivered = seen = 0;
            foreach (string piece in model.Stream(Prompt))
                if (seen++ == 0) { Throws<InvalidOperationException>(() => model.Tokenize("x"), "reentrant call"); model.Dispose(); }
            That(!running && delivered < Long / 2 && releases.Count("DestroyModel") == 2, "ended in a stream");
            model.Dispose();
            Throws<ObjectDisposedException>(() => model.Generate(Prompt), "disposed");
            model.Cancel();  // harmless
            Equal(2, releases.Count("DestroyModel"), "ended once");
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

            // A message goes to the thread whose call failed: here the other model fails on another
            // thread after this one's message has arrived and before its call has returned.
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
            e = Throws<VelmoraException>(() => model.Settings["stop_criteria"] = "early", "refused silently");
            Equal("SetConfigProperty failed with status 1 and no message", e.Message, "no message");

            // Settings the runtime refuses together fail the next generation.
            model.Settings.Set("do_sample", false);
            model.Settings["num_return_sequences"] = "3";
            e = Throws<VelmoraException>(() => model.Generate(Prompt), "invalid settings");
            That(e.Status == 2 && e.Message.StartsWith("Failed to validate config: "), "status 2: " + e.Message);
            e = Throws<VelmoraException>(() => model.Stream(Prompt).ToList(), "stream");
            That(e.Status == 1 && e.Message.StartsWith("Failed to validate config: "), "stream failure: " + e.Message);
            // The runtime's sentence, in one line, without the source place of its check.
            That(!e.Message.Contains("failed at") && e.LibraryMessage.Contains("failed at"), "one line: " + e.Message);

            // Foreseeable mistakes are refused before the library, naming the argument.
            Equal("prompt", Throws<ArgumentException>(() => model.Generate(""), "empty prompt").ParamName, "empty prompt");
            Throws<ArgumentException>(() => model.Settings["eos_token_id"] = "7", "end-of-text id not a stop id");
            var missing = Path.Combine(models, "missing");
            That(Throws<DirectoryNotFoundException>(() => new WhisperModel(missing), "missing").Message.Contains("'" + missing + "' does not exist"),
                 "the missing directory named");
            e = Throws<VelmoraException>(() => new WhisperModel(models), "no model files");
            That(e.Message.StartsWith("cannot load model '" + models + "': ") && !e.Message.Contains("\n") && e.LibraryMessage.Contains("\n"),
                 "one line naming the directory: " + e.Message);
            // A cancel just as the generation starts is not forgotten.
            model.Settings["num_return_sequences"] = "1";
            model.Settings["max_new_tokens"] = "50000";
            model.Settings["ignore_eos"] = "true";
            using (var source = new CancellationTokenSource(TimeSpan.FromMilliseconds(1)))
                That(model.Generate(Prompt, source.Token).Length < 5000, "cancelled at the start");
        }
    }

    static void WhisperCancelAndLists()
    {
        using (var releases = new Releases())
        using (var model = new WhisperModel(Path.Combine(models, "tiny-whisper")))
        {
            IDictionary<string, long> map = model.LanguageMap;
            That(map.ContainsKey("<|en|>") && releases.Count("FreeQueryResult") == map.Count && releases.Count("FreeLangToId") == 1,
                 "each key and the array released: " + Join(releases.Calls));
            model.LanguageMap = new Dictionary<string, long> { { "<|zz|>", 7 }, { "<|é|>", -2 } };
            map = model.LanguageMap;
            That(map.Count == 2 && map["<|zz|>"] == 7 && map["<|é|>"] == -2, "map round trip");
            model.SuppressTokens = new long[] { 9, 3, 9 };
            model.BeginSuppressTokens = new long[0];
            Equal("9|3|9 ", Join(model.SuppressTokens) + " " + Join(model.BeginSuppressTokens), "suppress lists");
            Equal(1, releases.Count("FreeSuppressTokens"), "ids released, nothing for an empty list");

            Throws<ArgumentException>(() => model.Settings["language"] = "<|en|>", "no longer in the map");
            Throws<ArgumentException>(() => model.Settings["task"] = "transcribe it", "not a task");
            Throws<ArgumentException>(() => model.Transcribe(new float[200]), "too short");
            Throws<ArgumentException>(() => model.Transcribe(new float[] { 0, float.NaN }.Concat(new float[300]).ToArray()), "NaN");
            model.Settings.Set("max_new_tokens", 400L);  // the random model never ends on its own
            var silence = new float[16000];
            string full = model.Transcribe(silence);
            using (var source = new CancellationTokenSource(TimeSpan.FromMilliseconds(100)))
                That(model.Transcribe(silence, source.Token).Length < full.Length && model.Transcribe(silence, source.Token) == "",
                     "the text so far (of " + full.Length + " characters), then nothing");
        }
    }
}
