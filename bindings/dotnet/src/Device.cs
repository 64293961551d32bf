namespace Velmora
{
    /// <summary>Where a model runs; the numbers are the library's device codes.</summary>
    public enum Device { Cpu = 0, Gpu = 1, Npu = 2 }
}
