// Text generation.
using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;
using System.Threading;
using System.Threading.Tasks;

namespace Velmora
{
    /// <summary>A text-generation model loaded from a model directory. Calls on one model run one at a
    /// time (others wait); distinct models may run on distinct threads at once.</summary>
    public sealed class LlmModel : IDisposable
    {
        readonly LlmApi api;
        readonly ModelCore core;

        /// <param name="contextLength">Becomes the default max_new_tokens (and, on the NPU, the longest prompt).</param>
        public LlmModel(string modelDir, Device device = Device.Cpu, int contextLength = Defaults.ContextLength)
        {
            byte[] path = ModelCore.ModelPath(modelDir);
            api = Library.Llm;
            core = new ModelCore(Family.Llm, api, nameof(LlmModel));
            core.CheckSetting = CheckSetting;
            core.Init(modelDir, (ref HostCallbacks callbacks, out IntPtr handle) => api.InitModel(path, (int)device, contextLength, out handle, ref callbacks));
        }

        public Settings Settings { get { return core.Settings; } }

        /// <summary>The generated text. <see cref="VelmoraException.Status"/> 2 or 3 means the settings
        /// failed validation, 4 or 5 that the generation failed.</summary>
        /// <param name="cancellationToken">Stops the generation at its next token, even when cancelled just
        /// as it starts; the call then throws <see cref="OperationCanceledException"/> (whatever was
        /// generated is dropped: stream it to keep the pieces). A lone <see cref="Cancel"/> instead makes
        /// the call return the text so far.</param>
        /// <exception cref="OperationCanceledException">The token was cancelled before the call returned.</exception>
        public string Generate(string prompt, CancellationToken cancellationToken = default(CancellationToken))
        {
            byte[] data = Prompt(prompt);
            cancellationToken.ThrowIfCancellationRequested();
            IntPtr text = IntPtr.Zero;
            using (ModelCore.Scope s = core.Use())
            using (Canceller.Repeating(api.CancelModel, s.Raw, cancellationToken))
                Family.Check("QueryModel", api.QueryModel(s.Raw, data, out text));
            string result = Text.TakeText(text, api.FreeQueryResult);
            cancellationToken.ThrowIfCancellationRequested();
            return result;
        }

        /// <summary><see cref="Generate"/> on a thread-pool thread, so that a UI or server thread goes on;
        /// a cancelled token ends the task as cancelled once the generation has stopped.</summary>
        public Task<string> GenerateAsync(string prompt, CancellationToken cancellationToken = default(CancellationToken))
        {
            Prompt(prompt);  // a bad prompt throws here, not from the task
            return Task.Run(() => Generate(prompt, cancellationToken), cancellationToken);
        }

        static byte[] Prompt(string prompt)
        {
            byte[] data = Text.Encode(prompt, nameof(prompt));
            if (data.Length == 1) throw new ArgumentException("prompt is empty: the model needs at least one token to continue from", nameof(prompt));
            return data;
        }

        void CheckSetting(string name, string value)
        {
            // The library refuses any other criterion without a word.
            if (name == "stop_criteria" && value != "EARLY" && value != "HEURISTIC" && value != "NEVER")
                throw new ArgumentException("stop_criteria takes EARLY, HEURISTIC or NEVER, not \"" + value + "\"", nameof(value));
            long eos;
            if (name != "eos_token_id" || !long.TryParse(value, out eos) || eos == -1) return;
            if (Array.IndexOf(StopTokens(), eos) < 0)
                throw new ArgumentException("eos_token_id " + eos + " is not among the stop token ids, which the runtime requires: add it first", nameof(value));
        }

        /// <summary>The pieces of the generation as they arrive, generated on a worker thread. Leaving the
        /// loop early, disposing the enumerator or cancelling the token stops the generation and waits for
        /// it to end. Each enumeration generates anew.</summary>
        /// <param name="cancellationToken">Once cancelled, the next step of the enumeration stops the
        /// generation and throws <see cref="OperationCanceledException"/>, after the pieces already
        /// yielded; a lone <see cref="Cancel"/> instead ends the sequence there.</param>
        public IEnumerable<string> Stream(string prompt, CancellationToken cancellationToken = default(CancellationToken))
        {
            byte[] data = Prompt(prompt);
            core.ThrowIfDisposed();
            return new TextStream(core, api, data, cancellationToken);
        }

        /// <summary>Asks a running generation of this model to stop. Any thread; never blocks; does
        /// nothing on a disposed model. A cancel while nothing runs is forgotten.</summary>
        public void Cancel() { core.Cancel(); }

        public long[] Tokenize(string text)
        {
            byte[] data = Text.Encode(text, nameof(text));
            IntPtr ids = IntPtr.Zero;
            UIntPtr count = UIntPtr.Zero;
            using (ModelCore.Scope s = core.Use()) Family.Check("Tokenize", api.Tokenize(s.Raw, data, out ids, out count));
            return Text.TakeIds(ids, count, api.FreeTokens);
        }

        /// <summary>A copy of the stop strings, in byte order (the library keeps a sorted set).</summary>
        public IReadOnlyList<string> GetStopStrings()
        {
            IntPtr array = IntPtr.Zero;
            UIntPtr count = UIntPtr.Zero;
            using (ModelCore.Scope s = core.Use()) Family.Check("GetStopStrings", api.GetStopStrings(s.Raw, out array, out count));
            if (count == UIntPtr.Zero) return Array.Empty<string>();
            try
            {
                var strings = new string[checked((int)count.ToUInt64())];
                for (int i = 0; i < strings.Length; i++) strings[i] = Text.Decode(Marshal.ReadIntPtr(array, i * IntPtr.Size));
                return Array.AsReadOnly(strings);
            }
            finally { api.FreeStopStrings(array, count); }
        }

        /// <summary>Replaces the stop strings; an empty sequence removes them all.</summary>
        public void SetStopStrings(IEnumerable<string> strings)
        {
            string[] given = ModelCore.ToArray(strings, nameof(strings));
            int empty = Array.IndexOf(given, "");
            if (empty >= 0) throw new ArgumentException("strings[" + empty + "] is empty: it would end every generation at once", nameof(strings));
            IntPtr[] copies = Text.Allocate(given, nameof(strings));
            try
            {
                using (ModelCore.Scope s = core.Use())
                    Family.Check("SetStopStrings", api.SetStopStrings(s.Raw, copies, (UIntPtr)copies.Length));
            }
            finally { Text.FreeAll(copies); }
        }

        /// <summary>A copy of the stop token ids, in ascending order (a sorted set).</summary>
        public IReadOnlyList<long> GetStopTokenIds() { return Array.AsReadOnly(StopTokens()); }

        long[] StopTokens() { return core.GetIds("GetStopTokens", api.GetStopTokens, api.FreeStopTokens); }

        /// <summary>Replaces the stop token ids. They must hold the end-of-text id (the setting
        /// "eos_token_id"), which the runtime insists on, unless that is -1.</summary>
        public void SetStopTokenIds(IEnumerable<long> ids)
        {
            long[] values = ModelCore.ToArray(ids, nameof(ids));
            long eos = core.Settings.GetInt64("eos_token_id");
            // The runtime refuses every later generation without it; say so now.
            if (eos != -1 && Array.IndexOf(values, eos) < 0)
                throw new ArgumentException("the stop token ids must hold the end-of-text id " + eos + " (Settings[\"eos_token_id\"]); "
                                            + "include it, or set eos_token_id to -1 first", nameof(ids));
            core.SetIds("SetStopTokens", api.SetStopTokens, values);
        }

        /// <summary>For the NPU, compiles the model into a ".blob" beside its files; for CPU and GPU,
        /// builds and drops a pipeline. Needs no model.</summary>
        public static void Compile(string modelDir, Device device, int contextLength)
        {
            byte[] path = Text.Encode(modelDir, nameof(modelDir));
            LlmApi api = Library.Llm;
            Family family = Family.Llm;
            // The library reports CompileModel through the last LLM InitModel's pair and has none
            // before the first: an InitModel refused at once (context length 0) stores ours.
            if (!family.Initialised)
            {
                family.Lock.EnterWriteLock();
                try
                {
                    if (!family.Initialised)
                    {
                        IntPtr handle;
                        HostCallbacks callbacks = family.Callbacks;
                        if (api.InitModel(new byte[] { 0 }, 0, 0, out handle, ref callbacks) == 0) api.DestroyModel(handle);
                        family.Initialised = true;
                    }
                }
                finally { family.Lock.ExitWriteLock(); }
            }
            family.Lock.EnterReadLock();
            try
            {
                Family.Begin();
                Family.Check("CompileModel", api.CompileModel(path, (int)device, contextLength));
            }
            finally { family.Lock.ExitReadLock(); }
        }

        /// <summary>Ends the model (once; later calls do nothing). A running stream is stopped; the
        /// model itself is destroyed when its last running call returns.</summary>
        public void Dispose() { core.Dispose(); }
    }
}
