// Streams a generation, then transcribes a WAV file:
//   mono Example.exe models/smollm2 models/whisper-base speech.wav
using System;
using System.IO;
using System.Text;
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
        try { speech = ReadWav(args[2]); }  // before any model loads: a bad file costs nothing
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

    // PCM (16-bit) or IEEE float (32-bit) WAV at any rate; channels are averaged to mono and the
    // result resampled to the 16 kHz the model takes.
    static float[] ReadWav(string path)
    {
        using (var reader = new BinaryReader(File.OpenRead(path)))
        {
            if (Encoding.ASCII.GetString(reader.ReadBytes(4)) != "RIFF") throw new InvalidDataException("not a WAV file");
            reader.ReadInt32();
            if (Encoding.ASCII.GetString(reader.ReadBytes(4)) != "WAVE") throw new InvalidDataException("not a WAV file");
            int format = 0, channels = 0, rate = 0, bits = 0;
            while (true)
            {
                string id = Encoding.ASCII.GetString(reader.ReadBytes(4));
                int size = reader.ReadInt32();
                if (id == "fmt ")
                {
                    format = reader.ReadInt16();
                    channels = reader.ReadInt16();
                    rate = reader.ReadInt32();
                    reader.ReadBytes(6);
                    bits = reader.ReadInt16();
                    reader.ReadBytes(size - 16);
                }
                else if (id == "data")
                {
                    bool pcm16 = format == 1 && bits == 16, float32 = format == 3 && bits == 32;
                    if (rate < 1 || channels < 1 || !(pcm16 || float32))
                        throw new InvalidDataException("need 16-bit PCM or 32-bit float (sox in.wav -b 16 out.wav)");
                    // espeak-ng and many tools write 0xFFFFFFFF or too much when streaming: read what is there.
                    long frames = Math.Min((uint)size, reader.BaseStream.Length - reader.BaseStream.Position) / (bits / 8) / channels;
                    var samples = new float[frames];
                    for (long i = 0; i < frames; i++)
                    {
                        float sum = 0;
                        for (int c = 0; c < channels; c++) sum += pcm16 ? reader.ReadInt16() / 32768f : reader.ReadSingle();
                        samples[i] = sum / channels;
                    }
                    return Resample(samples, rate, 16000);
                }
                else reader.ReadBytes(size + (size & 1));
            }
        }
    }

    // Windowed-sinc interpolation, low-passed below the lower Nyquist frequency; enough for speech.
    static float[] Resample(float[] input, int from, int to)
    {
        if (from == to) return input;
        double ratio = (double)to / from, cutoff = Math.Min(1.0, ratio);
        const int half = 16;
        var output = new float[(long)(input.Length * ratio)];
        for (long n = 0; n < output.Length; n++)
        {
            double center = n / ratio, sum = 0;
            for (long k = (long)center - half + 1; k <= (long)center + half; k++)
            {
                if (k < 0 || k >= input.Length) continue;
                double x = (center - k) * cutoff, window = 0.5 + 0.5 * Math.Cos(Math.PI * (center - k) / half);
                sum += input[k] * cutoff * (x == 0 ? 1 : Math.Sin(Math.PI * x) / (Math.PI * x)) * window;
            }
            output[n] = (float)sum;
        }
        return output;
    }
}
