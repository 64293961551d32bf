// A program built against an installed Velmora.dll that leaves finding the
// native library to the binding: generates, then transcribes raw 16 kHz float
// samples.   mono Consumer.exe LLM_DIR WHISPER_DIR SPEECH.f32
using System;
using System.IO;
using Velmora;

static class Consumer
{
    static int Main(string[] args)
    {
        using (var model = new LlmModel(args[0], Device.Cpu, contextLength: 16))
            Console.WriteLine("generated: " + model.Generate("Once upon a time"));
        byte[] raw = File.ReadAllBytes(args[2]);
        var samples = new float[raw.Length / 4];
        Buffer.BlockCopy(raw, 0, samples, 0, samples.Length * 4);
        using (var model = new WhisperModel(args[1]))
            Console.WriteLine("heard: " + model.Transcribe(samples));
        Console.WriteLine("library: " + Library.Path);
        return 0;
    }
}
