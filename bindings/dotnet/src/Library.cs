// Which library file is used, and the two process-wide callback pairs.
using System;
using System.Collections.Generic;
using System.IO;
using System.Runtime.InteropServices;
using System.Threading;

namespace Velmora
{
    public enum Device { Cpu = 0, Gpu = 1, Npu = 2 }

    /// <summary>A message the library logged (one per model load).</summary>
    public sealed class LogEventArgs : EventArgs
    {
        internal LogEventArgs(ModelFamily family, string message) { Family = family; Message = message; }
        public ModelFamily Family { get; private set; }
        public string Message { get; private set; }
    }

    public enum ModelFamily { Llm, Whisper }

    /// <summary>The native library, loaded once per process.</summary>
    public static class Library
    {
        public const string FileName = "Tarvik.Velmora.Framework.OpenVINOBindings.so";

        static readonly object sync = new object();
        static string loadedPath;
        static LlmApi llm;
        static WhisperApi whisper;

        /// <summary>Raised on the loading thread with the library's log messages.
        /// Exceptions thrown by handlers are swallowed: they cannot cross into native code.</summary>
        public static event EventHandler<LogEventArgs> Log;

        /// <summary>Uses the library at <paramref name="path"/>. Optional: without it the first model
        /// takes the first of <see cref="CandidatePaths"/> that exists. A process holds one library.</summary>
        public static void Load(string path)
        {
            if (path == null) throw new ArgumentNullException("path");
            string full = System.IO.Path.GetFullPath(path);
            lock (sync)
            {
                if (loadedPath == null) Open(full);
                else if (loadedPath != full)
                    throw new InvalidOperationException("The library is already loaded from " + loadedPath);
            }
        }

        /// <summary>The file in use, or null before the first model or <see cref="Load"/>.</summary>
        public static string Path { get { lock (sync) return loadedPath; } }

        /// <summary>Where the library is looked for when <see cref="Load"/> was not called, first match wins:
        /// beside this assembly (where a .NET build for linux-x64 copies the package's native assets, and an
        /// install's lib/), its runtimes/linux-x64/native/, the install layout's ../lib/, then the library of the CMake build tree this assembly
        /// was built in or whose checkout it lies in.</summary>
        public static IList<string> CandidatePaths()
        {
            string here = System.IO.Path.GetDirectoryName(typeof(Library).Assembly.Location);
            if (string.IsNullOrEmpty(here)) here = AppContext.BaseDirectory;
            var places = new List<string> {
                System.IO.Path.Combine(here, FileName),
                // A .NET build that targets no runtime identifier keeps the package's native assets here.
                System.IO.Path.Combine(here, "runtimes", "linux-x64", "native", FileName),
                System.IO.Path.GetFullPath(System.IO.Path.Combine(here, "..", "lib", FileName)),
            };
            // A build tree holds the library in src/; a checkout holds its build tree in build/.
            for (var dir = new DirectoryInfo(here); dir != null; dir = dir.Parent)
            {
                foreach (string tree in new[] { dir.FullName, System.IO.Path.Combine(dir.FullName, "build") })
                {
                    if (File.Exists(System.IO.Path.Combine(tree, "CMakeCache.txt")))
                    {
                        places.Add(System.IO.Path.Combine(tree, "src", FileName));
                        return places;
                    }
                }
            }
            return places;
        }

        internal static LlmApi Llm { get { EnsureLoaded(); return llm; } }
        internal static WhisperApi Whisper { get { EnsureLoaded(); return whisper; } }

        static void EnsureLoaded()
        {
            lock (sync)
            {
                if (loadedPath != null) return;
                IList<string> places = CandidatePaths();
                foreach (string place in places)
                {
                    if (File.Exists(place)) { Open(place); return; }
                }
                throw new DllNotFoundException(FileName + " not found; call Library.Load(path). Tried:\n  "
                                               + string.Join("\n  ", places));
            }
        }

        static void Open(string path)
        {
            IntPtr lib = Native.dlopen(Text.Encode(path, "path"), Native.RtldNow);
            if (lib == IntPtr.Zero) throw new DllNotFoundException(Text.Decode(Native.dlerror()));
            llm = new LlmApi(Table(lib, "GetLlmApiBase"));
            whisper = new WhisperApi(Table(lib, "GetWhisperApiBase"));
            loadedPath = path;
        }

        static IntPtr Table(IntPtr lib, string name)
        {
            IntPtr get = Native.dlsym(lib, Text.Encode(name, "name"));
            if (get == IntPtr.Zero) throw new EntryPointNotFoundException(name + " is not exported by the library");
            var fn = (Native.TableFn)Marshal.GetDelegateForFunctionPointer(get, typeof(Native.TableFn));
            return fn();
        }

        internal static void RaiseLog(ModelFamily family, string message)
        {
            EventHandler<LogEventArgs> handlers = Log;
            if (handlers == null) return;
            try { handlers(null, new LogEventArgs(family, message)); }
            catch (Exception) { }
        }
    }

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

    /// <summary>A slot failed: <see cref="Exception.Message"/> is the library's text in one line (the
    /// runtime's own sentence without the source places of its checks), <see cref="LibraryMessage"/> the
    /// full text and <see cref="Status"/> the slot's return value.</summary>
    public class VelmoraException : Exception
    {
        // Where the runtime says which file and check failed: kept on LibraryMessage only.
        static readonly System.Text.RegularExpressions.Regex RuntimePlace = new System.Text.RegularExpressions.Regex(
            @"(?:Check '.*?' failed at |Exception from )[^\n]*?:\d+:\s*", System.Text.RegularExpressions.RegexOptions.Singleline);

        public VelmoraException(string operation, int status, string message) : this(operation, status, message, null) { }

        /// <param name="context">What was asked, put before the library's text (e.g. "cannot load model 'dir'").</param>
        public VelmoraException(string operation, int status, string message, string context)
            : base(Describe(operation, status, message, context))
        {
            Operation = operation;
            Status = status;
            LibraryMessage = message ?? "";
        }

        static string Describe(string operation, int status, string message, string context)
        {
            if (string.IsNullOrEmpty(message)) return (context ?? operation) + " failed with status " + status + " and no message";
            var lines = new List<string>();
            foreach (string line in RuntimePlace.Replace(message, "").Split('\n'))
                if (line.Trim().Length > 0) lines.Add(line.Trim());
            string text = string.Join(" ", lines);
            return context == null ? text : context + ": " + text;
        }

        /// <summary>The library's full text, as it reported it.</summary>
        public string LibraryMessage { get; private set; }

        public int Status { get; private set; }
        /// <summary>The slot that failed, e.g. "QueryModel".</summary>
        public string Operation { get; private set; }
    }
}
