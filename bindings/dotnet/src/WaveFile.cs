// WAV files in, the 16 kHz mono samples WhisperModel.Transcribe takes out.
using System;
using System.IO;
using System.Text;

namespace Velmora
{
    /// <summary>Reads WAV files for <see cref="WhisperModel"/>: 16-bit PCM or 32-bit float, any sample rate and
    /// channel count. Other formats: convert first (<c>sox in.mp3 -b 16 out.wav</c>).</summary>
    public static class WaveFile
    {
        /// <summary>The rate <see cref="WhisperModel.Transcribe"/> takes.</summary>
        public const int SampleRate = 16000;

        /// <summary>The samples of a WAV file, the channels averaged to one and resampled to
        /// <see cref="SampleRate"/>.</summary>
        /// <exception cref="FileNotFoundException">No such file.</exception>
        /// <exception cref="InvalidDataException">Not a WAV file, or one in another sample format.</exception>
        public static float[] Read(string path)
        {
            if (path == null) throw new ArgumentNullException(nameof(path));
            using (var reader = new BinaryReader(File.OpenRead(path)))
            {
                try { return Samples(reader); }
                catch (EndOfStreamException) { throw new InvalidDataException(path + " ends before its audio data"); }
            }
        }

        static float[] Samples(BinaryReader reader)
        {
            bool riff = Chunk(reader) == "RIFF";
            reader.ReadInt32();  // the file's length, often wrong in streamed files
            if (!riff || Chunk(reader) != "WAVE") throw new InvalidDataException("not a WAV file");
            int format = 0, channels = 0, rate = 0, bits = 0;
            while (true)
            {
                string id = Chunk(reader);
                int size = reader.ReadInt32();
                if (id == "data")
                {
                    bool pcm16 = format == 1 && bits == 16, float32 = format == 3 && bits == 32;
                    if (rate < 1 || channels < 1 || !(pcm16 || float32))
                        throw new InvalidDataException("need 16-bit PCM or 32-bit float samples (sox in.wav -b 16 out.wav)");
                    // espeak-ng and many tools write 0xFFFFFFFF or too much when streaming: read what is there.
                    long frames = Math.Min((uint)size, reader.BaseStream.Length - reader.BaseStream.Position) / (bits / 8) / channels;
                    var samples = new float[frames];
                    for (long i = 0; i < frames; i++)
                    {
                        float sum = 0;
                        for (int c = 0; c < channels; c++) sum += pcm16 ? reader.ReadInt16() / 32768f : reader.ReadSingle();
                        samples[i] = sum / channels;
                    }
                    return Resample(samples, rate, SampleRate);
                }
                if (size < 0 || (id == "fmt " && size < 16))
                    throw new InvalidDataException("a damaged WAV file: its \"" + id + "\" chunk claims " + size + " bytes");
                if (id != "fmt ")
                {
                    reader.BaseStream.Seek(size + (size & 1), SeekOrigin.Current);
                    continue;
                }
                byte[] fmt = reader.ReadBytes(size + (size & 1));
                if (fmt.Length < size) throw new EndOfStreamException();
                format = BitConverter.ToUInt16(fmt, 0);
                channels = BitConverter.ToInt16(fmt, 2);
                rate = BitConverter.ToInt32(fmt, 4);
                bits = BitConverter.ToInt16(fmt, 14);
                // The extensible layout (more than two channels, say) names its sample format in a sub-format.
                if (format == 0xFFFE && size >= 26) format = BitConverter.ToUInt16(fmt, 24);
            }
        }

        static string Chunk(BinaryReader reader) { return Encoding.ASCII.GetString(reader.ReadBytes(4)); }

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
}
