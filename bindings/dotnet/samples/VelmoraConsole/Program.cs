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
            Console.Error.WriteLine("usage: Example LLM_DIR WHISPER_DIR AUDIO.wav (16 kHz, 16-bit or float)");
            return 2;
        }
        // Library.Load("/opt/velmora/lib/Tarvik.Velmora.Framework.OpenVINOBindings.so");  // if not in ../lib
        Library.Log += (sender, e) => Console.Error.WriteLine("[" + e.Family + "] " + e.Message);
        try
        {
            using (var model = new LlmModel(args[0], Device.Cpu, contextLength: 48))
            using (var stop = new CancellationTokenSource())
            {
                Console.CancelKeyPress += (sender, e) => { e.Cancel = true; stop.Cancel(); };  // Ctrl-C ends the text
                model.Settings["repetition_penalty"] = "1.1";
                model.StopStrings = new[] { "\n" };
                const string prompt = "Once upon a time";
                Console.Write(prompt);
                foreach (string piece in model.Stream(prompt, stop.Token))
                    Console.Write(piece);
                Console.WriteLine();
            }
            using (var whisper = new WhisperModel(args[1]))
            {
                whisper.Settings["language"] = "<|en|>";
                Console.WriteLine("Heard: " + whisper.Transcribe(ReadWav(args[2])).Trim());
            }
            return 0;
        }
        catch (VelmoraException e)
        {
            Console.Error.WriteLine(e.Operation + " failed (status " + e.Status + "): " + e.Message);
            return 1;
        }
    }

    // 16 kHz PCM (16-bit) or IEEE float (32-bit) WAV; channels are averaged to mono.
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
                    if (rate != 16000 || channels < 1 || !(pcm16 || float32))
                        throw new InvalidDataException("need 16 kHz, 16-bit PCM or 32-bit float (sox in.wav -r 16000 -b 16 out.wav)");
                    var samples = new float[size / (bits / 8) / channels];
                    for (int i = 0; i < samples.Length; i++)
                    {
                        float sum = 0;
                        for (int c = 0; c < channels; c++) sum += pcm16 ? reader.ReadInt16() / 32768f : reader.ReadSingle();
                        samples[i] = sum / channels;
                    }
                    return samples;
                }
                else reader.ReadBytes(size + (size & 1));
            }
        }
    }
}
