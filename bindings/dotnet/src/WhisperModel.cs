// Speech transcription.
using System;
using System.Collections.Generic;
using System.Collections.ObjectModel;
using System.Globalization;
using System.Runtime.ExceptionServices;
using System.Runtime.InteropServices;
using System.Text.RegularExpressions;
using System.Threading;
using System.Threading.Tasks;

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
            core = new ModelCore(Family.Whisper, api, nameof(WhisperModel));
            core.CheckSetting = CheckSetting;
            core.Init(modelDir, (ref HostCallbacks callbacks, out IntPtr handle) => api.InitModel(path, (int)device, out handle, ref callbacks));
        }

        public Settings Settings { get { return core.Settings; } }

        /// <summary>The runtime pads by reflection and needs more samples than this.</summary>
        public const int FewestSamples = 201;

        /// <summary>The text of 16 kHz mono samples in [-1, 1]. A cancel takes effect when the runtime next
        /// reports text, which in audio without speech is only at the end.</summary>
        /// <param name="cancellationToken">Stops the transcription; the call then throws
        /// <see cref="OperationCanceledException"/>. A lone <see cref="Cancel"/> instead makes it return
        /// the text so far.</param>
        /// <exception cref="OperationCanceledException">The token was cancelled before the call returned.</exception>
        public string Transcribe(float[] samples, CancellationToken cancellationToken = default(CancellationToken))
        {
            if (samples == null) throw new ArgumentNullException(nameof(samples));
            if (samples.Length < FewestSamples)
                throw new ArgumentException("samples holds " + samples.Length + " samples; the model needs at least " + FewestSamples, nameof(samples));
            for (int i = 0; i < samples.Length; i++)
                if (float.IsNaN(samples[i]) || float.IsInfinity(samples[i]))
                    throw new ArgumentException("samples holds NaN or infinite values (the first at index " + i + ")", nameof(samples));
            cancellationToken.ThrowIfCancellationRequested();
            IntPtr text = IntPtr.Zero;
            using (ModelCore.Scope s = core.Use())
            using (Canceller.Repeating(api.CancelModel, s.Raw, cancellationToken))
                Family.Check("QueryModel", api.QueryModel(s.Raw, samples, samples.Length, out text));
            string result = Text.TakeText(text, api.FreeQueryResult);
            cancellationToken.ThrowIfCancellationRequested();
            return result;
        }

        /// <summary>The text of a WAV file (see <see cref="WaveFile.Read(string)"/>).</summary>
        public string TranscribeFile(string path, CancellationToken cancellationToken = default(CancellationToken))
        {
            return Transcribe(WaveFile.Read(path), cancellationToken);
        }

        /// <summary><see cref="Transcribe"/> on a thread-pool thread, so that a UI or server thread goes
        /// on; a cancelled token ends the task as cancelled once the transcription has stopped.</summary>
        public Task<string> TranscribeAsync(float[] samples, CancellationToken cancellationToken = default(CancellationToken))
        {
            return Task.Run(() => Transcribe(samples, cancellationToken), cancellationToken);
        }

        // The runtime checks these two only when transcribing.
        void CheckSetting(string name, string value)
        {
            if (name == "task" && value != "transcribe" && value != "translate")
                throw new ArgumentException("task takes \"transcribe\" or \"translate\", not \"" + value + "\"", nameof(value));
            if (name == "language" && !GetLanguageMap().ContainsKey(value))
                throw new ArgumentException("language takes a token of the language map such as \"<|en|>\", not \"" + value + "\"", nameof(value));
            // With fewer than two new tokens the runtime decodes the window again and again without reporting
            // text: the transcription would never end, and no cancel reaches it.
            bool few = name == "max_new_tokens" && ZeroOrOne(value);
            bool timestamps = name == "return_timestamps" && value.Equals("true", StringComparison.OrdinalIgnoreCase);
            if ((few && Settings["return_timestamps"] == "true") || (timestamps && ZeroOrOne(Settings["max_new_tokens"])))
                throw new ArgumentException("return_timestamps=true needs max_new_tokens of 2 or more: with fewer the runtime never ends the transcription", nameof(value));
        }

        // The library reads a size as strtol does: " 01" and "+1x" are 1.
        static bool ZeroOrOne(string size)
        {
            Match number = Regex.Match(size, @"^\s*[-+]?[0-9]+");
            long value;
            return number.Success && long.TryParse(number.Value, NumberStyles.AllowLeadingWhite | NumberStyles.AllowLeadingSign,
                                                   CultureInfo.InvariantCulture, out value) && (value == 0 || value == 1);
        }

        /// <summary>Asks a running transcription to stop. Any thread; never blocks; does nothing on a
        /// disposed model.</summary>
        public void Cancel() { core.Cancel(); }

        /// <summary>A copy of the language map: language token ("&lt;|en|&gt;") to token id.</summary>
        public IReadOnlyDictionary<string, long> GetLanguageMap()
        {
            IntPtr array = IntPtr.Zero;
            UIntPtr count = UIntPtr.Zero;
            using (ModelCore.Scope s = core.Use()) Family.Check("GetLangToId", api.GetLangToId(s.Raw, out array, out count));
            var map = new Dictionary<string, long>();
            if (count == UIntPtr.Zero) return new ReadOnlyDictionary<string, long>(map);
            int size = Marshal.SizeOf<LangIdPair>();
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
            return new ReadOnlyDictionary<string, long>(map);
        }

        /// <summary>Replaces the whole language map.</summary>
        public void SetLanguageMap(IEnumerable<KeyValuePair<string, long>> map)
        {
            KeyValuePair<string, long>[] entries = ModelCore.ToArray(map, nameof(map));
            var keys = new string[entries.Length];
            var pairs = new LangIdPair[entries.Length];
            for (int i = 0; i < entries.Length; i++)
            {
                keys[i] = entries[i].Key;
                pairs[i].Id = entries[i].Value;
            }
            IntPtr[] texts = Text.Allocate(keys, nameof(map));
            try
            {
                for (int i = 0; i < texts.Length; i++) pairs[i].Language = texts[i];
                using (ModelCore.Scope s = core.Use()) Family.Check("SetLangToId", api.SetLangToId(s.Raw, pairs, (UIntPtr)pairs.Length));
            }
            finally { Text.FreeAll(texts); }
        }

        /// <summary>A copy of the token ids suppressed throughout, in order, duplicates kept.</summary>
        public IReadOnlyList<long> GetSuppressTokens()
        {
            return Array.AsReadOnly(core.GetIds("GetSuppressTokens", api.GetSuppressTokens, api.FreeSuppressTokens));
        }

        public void SetSuppressTokens(IEnumerable<long> ids)
        {
            core.SetIds("SetSuppressTokens", api.SetSuppressTokens, ModelCore.ToArray(ids, nameof(ids)));
        }

        /// <summary>A copy of the token ids suppressed at the start, in order, duplicates kept.</summary>
        public IReadOnlyList<long> GetBeginSuppressTokens()
        {
            return Array.AsReadOnly(core.GetIds("GetBeginSuppressTokens", api.GetBeginSuppressTokens, api.FreeBeginSuppressTokens));
        }

        public void SetBeginSuppressTokens(IEnumerable<long> ids)
        {
            core.SetIds("SetBeginSuppressTokens", api.SetBeginSuppressTokens, ModelCore.ToArray(ids, nameof(ids)));
        }

        /// <summary>Ends the model (once; later calls do nothing).</summary>
        public void Dispose() { core.Dispose(); }
    }
}
