namespace Velmora
{
    /// <summary>The library's two tables: text generation and speech transcription.</summary>
    public enum ModelFamily { Llm, Whisper }
}
