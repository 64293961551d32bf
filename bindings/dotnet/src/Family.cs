// The callback pair and lock each model family shares across the process.
using System;
using System.Runtime.InteropServices;
using System.Threading;

namespace Velmora
{
    /// <summary>One model family's share of process state: the callback pair the library keeps for
    /// the family, and the lock that keeps its InitModel (which replaces that pair) apart from every
    /// other slot of the family.</summary>
    internal sealed class Family
    {
        internal static readonly Family Llm = new Family(ModelFamily.Llm);
        internal static readonly Family Whisper = new Family(ModelFamily.Whisper);

        // The library calls `error` on the thread running the failing slot, so a message
        // filed per thread reaches the call that caused it even with models busy elsewhere.
        [ThreadStatic] static string message;

        internal readonly ReaderWriterLockSlim Lock = new ReaderWriterLockSlim(LockRecursionPolicy.SupportsRecursion);
        internal volatile bool Initialised;
        // The library may call these at any time from here on: they live as long as the process.
        readonly Native.MessageFn onLog;
        readonly Native.MessageFn onError;
        internal HostCallbacks Callbacks;

        Family(ModelFamily family)
        {
            onLog = m => Library.RaiseLog(family, Text.Decode(m));
            onError = m => message = Text.Decode(m);
            Callbacks.Log = Marshal.GetFunctionPointerForDelegate(onLog);
            Callbacks.Error = Marshal.GetFunctionPointerForDelegate(onError);
        }

        /// <summary>Forgets any message of an earlier call on this thread; call right before a slot.</summary>
        internal static void Begin() { message = null; }

        /// <summary>Throws what the slot just reported when its status is not 0.</summary>
        internal static void Check(string operation, int status)
        {
            if (status == 0) return;
            string text = message;
            message = null;
            throw new VelmoraException(operation, status, text);
        }
    }
}
