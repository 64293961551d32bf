// Speech transcription.
using System;
using System.Collections.Generic;
using System.Runtime.ExceptionServices;
using System.Runtime.InteropServices;
using System.Threading;

namespace Velmora
{
    /// <summary>A Whisper model loaded from a model directory. Calls on one model run one at a time.</summary>
    public sealed class WhisperModel : IDisposable
    {
        readonly WhisperApi api;
        readonly ModelCore core;

        public WhisperModel(string modelDir, Device device = Device.Cpu)
        {
            byte[] path = ModelCore.ModelPath(modelDir);
            api = Library.Whisper;
            core = new ModelCore(Family.Whisper, api, "WhisperModel");
            core.CheckSetting = CheckSetting;
            core.Init(modelDir, (ref HostCallbacks callbacks, out IntPtr handle) => api.InitModel(path, (int)device, out handle, ref callbacks));
        }

        public Settings Settings { get { return core.Settings; } }

        /// <summary>The runtime pads by reflection and needs more samples than this.</summary>
        public const int FewestSamples = 201;

        /// <summary>The text of 16 kHz mono samples in [-1, 1]. Cancelling the token (or
        /// <see cref="Cancel"/>) ends it early with the text so far; it takes effect when the runtime next
        /// reports text, which in audio without speech is only at the end.</summary>
        public string Transcribe(float[] samples, CancellationToken cancellationToken = default(CancellationToken))
        {
            if (samples == null) throw new ArgumentNullException("samples");
            if (samples.Length < FewestSamples)
                throw new ArgumentException("samples holds " + samples.Length + " samples; the model needs at least " + FewestSamples, "samples");
            for (int i = 0; i < samples.Length; i++)
                if (float.IsNaN(samples[i]) || float.IsInfinity(samples[i]))
                    throw new ArgumentException("samples holds NaN or infinite values (the first at index " + i + ")", "samples");
            if (cancellationToken.IsCancellationRequested) return "";
            IntPtr text = IntPtr.Zero;
            using (ModelCore.Scope s = core.Use())
            using (Canceller.Repeating(api.CancelModel, s.Raw, cancellationToken))
                Family.Check("QueryModel", api.QueryModel(s.Raw, samples, samples.Length, out text));
            return Text.TakeText(text, api.FreeQueryResult);
        }

        // The runtime checks these two only when transcribing.
        void CheckSetting(string name, string value)
        {
            if (name == "task" && value != "transcribe" && value != "translate")
                throw new ArgumentException("task takes \"transcribe\" or \"translate\", not \"" + value + "\"", "value");
            if (name == "language" && !LanguageMap.ContainsKey(value))
                throw new ArgumentException("language takes a token of LanguageMap such as \"<|en|>\", not \"" + value + "\"", "value");
        }

        /// <summary>Asks a running transcription to stop. Any thread; never blocks; does nothing on a
        /// disposed model.</summary>
        public void Cancel() { core.Cancel(); }

        /// <summary>Language token ("&lt;|en|&gt;") to token id. Assigning replaces the whole map.</summary>
        public IDictionary<string, long> LanguageMap
        {
            get
            {
                IntPtr array = IntPtr.Zero;
                UIntPtr count = UIntPtr.Zero;
                using (ModelCore.Scope s = core.Use()) Family.Check("GetLangToId", api.GetLangToId(s.Raw, out array, out count));
                var map = new Dictionary<string, long>();
                if (count == UIntPtr.Zero) return map;
                int size = Marshal.SizeOf(typeof(LangIdPair));
                ExceptionDispatchInfo failure = null;
                try
                {
                    // Each key is a buffer of its own: all are released even if one cannot be read.
                    for (long i = 0; i < (long)count.ToUInt64(); i++)
                    {
                        IntPtr entry = new IntPtr(array.ToInt64() + i * size);
                        IntPtr key = Marshal.ReadIntPtr(entry);
                        try { if (failure == null) map[Text.Decode(key)] = Marshal.ReadInt64(entry, IntPtr.Size); }
                        catch (Exception e) { failure = ExceptionDispatchInfo.Capture(e); }
                        finally { api.FreeQueryResult(key); }
                    }
                }
                finally { api.FreeLangToId(array); }
                if (failure != null) failure.Throw();
                return map;
            }
            set
            {
                if (value == null) throw new ArgumentNullException("value");
                var keys = new string[value.Count];
                var pairs = new LangIdPair[value.Count];
                int n = 0;
                foreach (KeyValuePair<string, long> entry in value)
                {
                    keys[n] = entry.Key;
                    pairs[n++].Id = entry.Value;
                }
                IntPtr[] texts = Text.Allocate(keys, "value");
                try
                {
                    for (int i = 0; i < n; i++) pairs[i].Language = texts[i];
                    using (ModelCore.Scope s = core.Use()) Family.Check("SetLangToId", api.SetLangToId(s.Raw, pairs, (UIntPtr)n));
                }
                finally { Text.FreeAll(texts); }
            }
        }

        /// <summary>Token ids suppressed throughout, in order, duplicates kept.</summary>
        public long[] SuppressTokens
        {
            get { return core.GetIds("GetSuppressTokens", api.GetSuppressTokens, api.FreeSuppressTokens); }
            set { core.SetIds("SetSuppressTokens", api.SetSuppressTokens, value); }
        }

        /// <summary>Token ids suppressed at the start, in order, duplicates kept.</summary>
        public long[] BeginSuppressTokens
        {
            get { return core.GetIds("GetBeginSuppressTokens", api.GetBeginSuppressTokens, api.FreeBeginSuppressTokens); }
            set { core.SetIds("SetBeginSuppressTokens", api.SetBeginSuppressTokens, value); }
        }

        /// <summary>Ends the model (once; later calls do nothing).</summary>
        public void Dispose() { core.Dispose(); }
    }
}
