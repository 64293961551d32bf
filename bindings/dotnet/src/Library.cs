// Which library file is used, and its log messages.
using System;
using System.Collections.Generic;
using System.IO;
using System.Runtime.InteropServices;

namespace Velmora
{
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
            if (path == null) throw new ArgumentNullException(nameof(path));
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
            IntPtr lib = Native.dlopen(Text.Encode(path, nameof(path)), Native.RtldNow);
            if (lib == IntPtr.Zero) throw new DllNotFoundException(Text.Decode(Native.dlerror()));
            llm = new LlmApi(Table(lib, "GetLlmApiBase"));
            whisper = new WhisperApi(Table(lib, "GetWhisperApiBase"));
            loadedPath = path;
        }

        static IntPtr Table(IntPtr lib, string name)
        {
            IntPtr get = Native.dlsym(lib, Text.Encode(name, nameof(name)));
            if (get == IntPtr.Zero) throw new EntryPointNotFoundException(name + " is not exported by the library");
            var fn = Marshal.GetDelegateForFunctionPointer<Native.TableFn>(get);
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
}
