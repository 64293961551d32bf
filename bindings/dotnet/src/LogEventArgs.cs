using System;

namespace Velmora
{
    /// <summary>A message the library logged (one per model load).</summary>
    public sealed class LogEventArgs : EventArgs
    {
        internal LogEventArgs(ModelFamily family, string message) { Family = family; Message = message; }
        public ModelFamily Family { get; private set; }
        public string Message { get; private set; }
    }
}
