using System;
using System.Collections.Generic;
using System.IO;
using System.Threading;
using Velmora;

static class WhisperTests
{
    internal static void CancelAndListsRoundTrip()
    {
        using (var releases = new Releases())
        using (var model = new WhisperModel(Path.Combine(Runner.Models, "tiny-whisper")))
        {
            IDictionary<string, long> map = model.LanguageMap;
            Check.That(map.ContainsKey("<|en|>"), "English");
            Check.Equal(map.Count, releases.Count("FreeQueryResult"), "each key released");
            Check.Equal(1, releases.Count("FreeLangToId"), "array released");
            model.LanguageMap = new Dictionary<string, long> { { "<|zz|>", 7 }, { "<|é|>", -2 } };
            map = model.LanguageMap;
            Check.That(map.Count == 2 && map["<|zz|>"] == 7 && map["<|é|>"] == -2, "map round trip");
            model.SuppressTokens = new long[] { 9, 3, 9 };
            model.BeginSuppressTokens = new long[0];
            Check.Equal("9|3|9", Check.Join(model.SuppressTokens), "suppress");
            Check.Equal(0, model.BeginSuppressTokens.Length, "begin suppress");
            Check.Equal(1, releases.Count("FreeSuppressTokens"), "ids released, nothing for an empty list");

            model.Settings.Set("max_new_tokens", 400L);  // the random model never ends on its own
            var silence = new float[16000];
            string full = model.Transcribe(silence);
            using (var source = new CancellationTokenSource(TimeSpan.FromMilliseconds(100)))
            {
                string part = model.Transcribe(silence, source.Token);
                Check.That(part.Length < full.Length, "shorter than " + full.Length + ": " + part.Length);
                Check.Equal("", model.Transcribe(silence, source.Token), "cancelled before it starts");
            }
        }
    }
}
