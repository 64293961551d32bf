// The header's records and function types, and dlopen.
using System;
using System.Runtime.InteropServices;

namespace Velmora
{
    [StructLayout(LayoutKind.Sequential)]
    internal struct HostCallbacks
    {
        public IntPtr Log;
        public IntPtr Error;
    }

    [StructLayout(LayoutKind.Sequential)]
    internal struct LangIdPair
    {
        public IntPtr Language;
        public long Id;
    }

    internal static class Native
    {
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void MessageFn(IntPtr message);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int TextFn(IntPtr piece);

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate IntPtr TableFn();
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int LlmInitFn(byte[] path, int device, int contextLength, out IntPtr handle, ref HostCallbacks callbacks);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int WhisperInitFn(byte[] path, int device, out IntPtr handle, ref HostCallbacks callbacks);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int HandleFn(IntPtr handle);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int ReleaseFn(IntPtr buffer);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int QueryFn(IntPtr handle, byte[] prompt, out IntPtr text);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int StreamFn(IntPtr handle, byte[] prompt, TextFn onText);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int SetPropertyFn(IntPtr handle, byte[] name, byte[] value);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int GetPropertyFn(IntPtr handle, byte[] name, out IntPtr value);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int SetStringsFn(IntPtr handle, IntPtr[] strings, UIntPtr count);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int GetListFn(IntPtr handle, out IntPtr array, out UIntPtr count);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int FreeStringsFn(IntPtr strings, UIntPtr count);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int SetIdsFn(IntPtr handle, long[] ids, UIntPtr count);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int TokenizeFn(IntPtr handle, byte[] text, out IntPtr ids, out UIntPtr count);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int CompileFn(byte[] path, int device, int contextLength);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int TranscribeFn(IntPtr handle, float[] samples, int count, out IntPtr text);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int SetLanguagesFn(IntPtr handle, LangIdPair[] pairs, UIntPtr count);

        internal const int RtldNow = 2;
        [DllImport("libdl.so.2")]
        internal static extern IntPtr dlopen(byte[] file, int mode);
        [DllImport("libdl.so.2")]
        internal static extern IntPtr dlsym(IntPtr library, byte[] name);
        [DllImport("libdl.so.2")]
        internal static extern IntPtr dlerror();
    }
}
