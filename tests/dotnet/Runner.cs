// Runs the C# binding's tests under Mono: Velmora.Tests.exe LIBRARY MODELS_DIR.
using System;
using System.Collections.Generic;
using System.Reflection;
using Velmora;

static class Runner
{
    internal static string Models;

    static int Main(string[] args)
    {
        Library.Load(args[0]);
        Models = args[1];
        int failed = 0;
        // In this order: CompileModel must be seen before any LLM model exists.
        foreach (Action test in new Action[] { LlmTests.CompileReportsBeforeAnyModelExists, LlmTests.TextAndListsCrossInUtf8AndAreReleased,
                                               LlmTests.StoppingAndEndingAModel,
                                               LlmTests.SettingsAndFailuresCarryTheLibraryText, WhisperTests.CancelAndListsRoundTrip })
        {
            try { test(); Console.WriteLine("ok   " + test.Method.Name); }
            catch (Exception e) { failed++; Console.WriteLine("FAIL " + test.Method.Name + ": " + e); }
        }
        return failed;
    }
}

static class Check
{
    internal static void That(bool condition, string what)
    {
        if (!condition) throw new Exception("expected: " + what);
    }

    internal static void Equal(object expected, object actual, string what)
    {
        if (!Equals(expected, actual)) throw new Exception(what + ": expected <" + expected + "> but got <" + actual + ">");
    }

    internal static string Join<T>(IEnumerable<T> items) { return string.Join("|", items); }

    internal static E Throws<E>(Action action, string what) where E : Exception
    {
        try { action(); }
        catch (E e) { return e; }
        throw new Exception(what + ": expected " + typeof(E).Name);
    }
}

/// <summary>Counts calls of the release slots (and DestroyModel) of both tables while it lives,
/// so a test sees every buffer given back exactly once.</summary>
sealed class Releases : IDisposable
{
    readonly List<Action> restore = new List<Action>();
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
                restore.Add(() => field.SetValue(api, real));
            }
    }

    int Note(string call, int status)
    {
        lock (Calls) Calls.Add(call);
        return status;
    }

    public int Count(string call) { lock (Calls) return Calls.FindAll(c => c == call).Count; }

    public void Dispose() { foreach (Action a in restore) a(); }
}
