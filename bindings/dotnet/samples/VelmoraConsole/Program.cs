// Streams a generation, then transcribes a WAV file:
//   mono Example.exe models/smollm2 models/whisper-base speech.wav
using System;
using System.IO;
using System.Threading;
using Velmora;

static class Example
{
    static int Main(string[] args)
    {
        if (args.Length != 3)
        {
            Console.Error.WriteLine("usage: Example LLM_DIR WHISPER_DIR AUDIO.wav (16-bit PCM or float, any rate)");
            return 2;
        }
        float[] speech;
        try { speech = WaveFile.Read(args[2]); }  // before any model loads: a bad file costs nothing
        catch (Exception e) when (e is IOException || e is InvalidDataException || e is UnauthorizedAccessException)
        {
            Console.Error.WriteLine("cannot read " + args[2] + ": " + e.Message);
            return 2;
        }
        Library.Log += (sender, e) => Console.Error.WriteLine("[" + e.Family + "] " + e.Message);
        try
        {
            using (var model = new LlmModel(args[0], Device.Cpu, contextLength: 48))
            using (var stop = new CancellationTokenSource())
            {
                Console.CancelKeyPress += (sender, e) => { e.Cancel = true; stop.Cancel(); };  // Ctrl-C ends the text
                model.Settings["repetition_penalty"] = "1.1";
                model.SetStopStrings(new[] { "\n" });
                const string prompt = "Once upon a time";
                Console.Write(prompt);
                try
                {
                    foreach (string piece in model.Stream(prompt, stop.Token))
                        Console.Write(piece);
                }
                catch (OperationCanceledException) { }  // Ctrl-C: what was printed stays
                Console.WriteLine();
            }
            using (var whisper = new WhisperModel(args[1]))
            {
                whisper.Settings["language"] = "<|en|>";
                Console.WriteLine("Heard: " + whisper.Transcribe(speech).Trim());
            }
            return 0;
        }
        catch (Exception e) when (e is VelmoraException || e is DirectoryNotFoundException)
        {
            Console.Error.WriteLine(e.Message);
            return 1;
        }
    }
}
