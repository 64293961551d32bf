// Written by the build tool velmora-settings-table from the library's header and
// device table: the build fails while this file differs from what it writes.
namespace Velmora
{
    /// <summary>Where a model runs; the numbers are the library's device codes.</summary>
    public enum Device { Cpu = 0, Gpu = 1, Npu = 2 }

    internal static class Defaults
    {
        /// <summary>The context length hosts give a new LLM when none is asked for.</summary>
        internal const int ContextLength = 256;
    }
}
