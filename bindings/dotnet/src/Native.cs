// The library's two tables as delegates. Slots are read by index from the
// table the library exports, so the order here is the header's order.
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

        internal static T Slot<T>(IntPtr table, int index) where T : class
        {
            return (T)(object)Marshal.GetDelegateForFunctionPointer(Marshal.ReadIntPtr(table, index * IntPtr.Size), typeof(T));
        }

        internal const int RtldNow = 2;
        [DllImport("libdl.so.2")]
        internal static extern IntPtr dlopen(byte[] file, int mode);
        [DllImport("libdl.so.2")]
        internal static extern IntPtr dlsym(IntPtr library, byte[] name);
        [DllImport("libdl.so.2")]
        internal static extern IntPtr dlerror();
    }

    /// <summary>The slots both families have, for what the two model classes share.</summary>
    internal interface ICommonSlots
    {
        Native.HandleFn Destroy { get; }
        Native.HandleFn Cancel { get; }
        Native.GetPropertyFn GetProperty { get; }
        Native.SetPropertyFn SetProperty { get; }
        Native.ReleaseFn FreeProperty { get; }
    }

    // Fields, read at every call: the tests wrap the release slots to count them.
    internal sealed class LlmApi : ICommonSlots
    {
        internal Native.LlmInitFn InitModel;
        internal Native.HandleFn DestroyModel;
        internal Native.QueryFn QueryModel;
        internal Native.StreamFn StreamModel;
        internal Native.ReleaseFn FreeQueryResult;
        internal Native.SetPropertyFn SetConfigProperty;
        internal Native.GetPropertyFn GetConfigProperty;
        internal Native.ReleaseFn FreeConfigProperty;
        internal Native.SetStringsFn SetStopStrings;
        internal Native.GetListFn GetStopStrings;
        internal Native.FreeStringsFn FreeStopStrings;
        internal Native.SetIdsFn SetStopTokens;
        internal Native.GetListFn GetStopTokens;
        internal Native.ReleaseFn FreeStopTokens;
        internal Native.TokenizeFn Tokenize;
        internal Native.ReleaseFn FreeTokens;
        internal Native.HandleFn CancelModel;
        internal Native.CompileFn CompileModel;

        public Native.HandleFn Destroy { get { return DestroyModel; } }
        public Native.HandleFn Cancel { get { return CancelModel; } }
        public Native.GetPropertyFn GetProperty { get { return GetConfigProperty; } }
        public Native.SetPropertyFn SetProperty { get { return SetConfigProperty; } }
        public Native.ReleaseFn FreeProperty { get { return FreeConfigProperty; } }

        internal LlmApi(IntPtr t)
        {
            InitModel = Native.Slot<Native.LlmInitFn>(t, 0);
            DestroyModel = Native.Slot<Native.HandleFn>(t, 1);
            QueryModel = Native.Slot<Native.QueryFn>(t, 2);
            StreamModel = Native.Slot<Native.StreamFn>(t, 3);
            FreeQueryResult = Native.Slot<Native.ReleaseFn>(t, 4);
            SetConfigProperty = Native.Slot<Native.SetPropertyFn>(t, 5);
            GetConfigProperty = Native.Slot<Native.GetPropertyFn>(t, 6);
            FreeConfigProperty = Native.Slot<Native.ReleaseFn>(t, 7);
            SetStopStrings = Native.Slot<Native.SetStringsFn>(t, 8);
            GetStopStrings = Native.Slot<Native.GetListFn>(t, 9);
            FreeStopStrings = Native.Slot<Native.FreeStringsFn>(t, 10);
            SetStopTokens = Native.Slot<Native.SetIdsFn>(t, 11);
            GetStopTokens = Native.Slot<Native.GetListFn>(t, 12);
            FreeStopTokens = Native.Slot<Native.ReleaseFn>(t, 13);
            Tokenize = Native.Slot<Native.TokenizeFn>(t, 14);
            FreeTokens = Native.Slot<Native.ReleaseFn>(t, 15);
            CancelModel = Native.Slot<Native.HandleFn>(t, 16);
            CompileModel = Native.Slot<Native.CompileFn>(t, 17);
        }
    }

    internal sealed class WhisperApi : ICommonSlots
    {
        internal Native.WhisperInitFn InitModel;
        internal Native.HandleFn DestroyModel;
        internal Native.TranscribeFn QueryModel;
        internal Native.ReleaseFn FreeQueryResult;
        internal Native.SetPropertyFn SetConfigProperty;
        internal Native.GetPropertyFn GetConfigProperty;
        internal Native.ReleaseFn FreeConfigProperty;
        internal Native.GetListFn GetLangToId;
        internal Native.SetLanguagesFn SetLangToId;
        internal Native.ReleaseFn FreeLangToId;
        internal Native.GetListFn GetBeginSuppressTokens;
        internal Native.SetIdsFn SetBeginSuppressTokens;
        internal Native.ReleaseFn FreeBeginSuppressTokens;
        internal Native.GetListFn GetSuppressTokens;
        internal Native.SetIdsFn SetSuppressTokens;
        internal Native.ReleaseFn FreeSuppressTokens;
        internal Native.HandleFn CancelModel;

        public Native.HandleFn Destroy { get { return DestroyModel; } }
        public Native.HandleFn Cancel { get { return CancelModel; } }
        public Native.GetPropertyFn GetProperty { get { return GetConfigProperty; } }
        public Native.SetPropertyFn SetProperty { get { return SetConfigProperty; } }
        public Native.ReleaseFn FreeProperty { get { return FreeConfigProperty; } }

        internal WhisperApi(IntPtr t)
        {
            InitModel = Native.Slot<Native.WhisperInitFn>(t, 0);
            DestroyModel = Native.Slot<Native.HandleFn>(t, 1);
            QueryModel = Native.Slot<Native.TranscribeFn>(t, 2);
            FreeQueryResult = Native.Slot<Native.ReleaseFn>(t, 3);
            SetConfigProperty = Native.Slot<Native.SetPropertyFn>(t, 4);
            GetConfigProperty = Native.Slot<Native.GetPropertyFn>(t, 5);
            FreeConfigProperty = Native.Slot<Native.ReleaseFn>(t, 6);
            GetLangToId = Native.Slot<Native.GetListFn>(t, 7);
            SetLangToId = Native.Slot<Native.SetLanguagesFn>(t, 8);
            FreeLangToId = Native.Slot<Native.ReleaseFn>(t, 9);
            GetBeginSuppressTokens = Native.Slot<Native.GetListFn>(t, 10);
            SetBeginSuppressTokens = Native.Slot<Native.SetIdsFn>(t, 11);
            FreeBeginSuppressTokens = Native.Slot<Native.ReleaseFn>(t, 12);
            GetSuppressTokens = Native.Slot<Native.GetListFn>(t, 13);
            SetSuppressTokens = Native.Slot<Native.SetIdsFn>(t, 14);
            FreeSuppressTokens = Native.Slot<Native.ReleaseFn>(t, 15);
            CancelModel = Native.Slot<Native.HandleFn>(t, 16);
        }
    }
}
