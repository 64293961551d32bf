// The library's two tables as delegates, filled by slot index from the
// tables the library exports: the name lists below follow the header's order.
using System;
using System.Reflection;
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

    // The slot fields are assigned by reflection, which the compiler does not see.
#pragma warning disable 649

    /// <summary>The slots both families have, for what the two model classes share. Fields, read
    /// at every call: the tests wrap the release slots to count them.</summary>
    internal abstract class CommonSlots
    {
        internal Native.HandleFn DestroyModel;
        internal Native.SetPropertyFn SetConfigProperty;
        internal Native.GetPropertyFn GetConfigProperty;
        internal Native.ReleaseFn FreeConfigProperty;
        internal Native.HandleFn CancelModel;

        /// <summary>Fills every slot field from the table; <paramref name="order"/> names the fields
        /// in the table's slot order.</summary>
        protected CommonSlots(IntPtr table, string[] order)
        {
            for (int i = 0; i < order.Length; i++)
            {
                FieldInfo field = GetType().GetField(order[i], BindingFlags.Instance | BindingFlags.NonPublic);
                IntPtr slot = Marshal.ReadIntPtr(table, i * IntPtr.Size);
                field.SetValue(this, Marshal.GetDelegateForFunctionPointer(slot, field.FieldType));
            }
        }
    }

    internal sealed class LlmApi : CommonSlots
    {
        internal Native.LlmInitFn InitModel;
        internal Native.QueryFn QueryModel;
        internal Native.StreamFn StreamModel;
        internal Native.ReleaseFn FreeQueryResult;
        internal Native.SetStringsFn SetStopStrings;
        internal Native.GetListFn GetStopStrings;
        internal Native.FreeStringsFn FreeStopStrings;
        internal Native.SetIdsFn SetStopTokens;
        internal Native.GetListFn GetStopTokens;
        internal Native.ReleaseFn FreeStopTokens;
        internal Native.TokenizeFn Tokenize;
        internal Native.ReleaseFn FreeTokens;
        internal Native.CompileFn CompileModel;

        internal LlmApi(IntPtr table) : base(table, new[] {
            "InitModel", "DestroyModel", "QueryModel", "StreamModel", "FreeQueryResult", "SetConfigProperty",
            "GetConfigProperty", "FreeConfigProperty", "SetStopStrings", "GetStopStrings", "FreeStopStrings",
            "SetStopTokens", "GetStopTokens", "FreeStopTokens", "Tokenize", "FreeTokens", "CancelModel", "CompileModel" })
        {
        }
    }

    internal sealed class WhisperApi : CommonSlots
    {
        internal Native.WhisperInitFn InitModel;
        internal Native.TranscribeFn QueryModel;
        internal Native.ReleaseFn FreeQueryResult;
        internal Native.GetListFn GetLangToId;
        internal Native.SetLanguagesFn SetLangToId;
        internal Native.ReleaseFn FreeLangToId;
        internal Native.GetListFn GetBeginSuppressTokens;
        internal Native.SetIdsFn SetBeginSuppressTokens;
        internal Native.ReleaseFn FreeBeginSuppressTokens;
        internal Native.GetListFn GetSuppressTokens;
        internal Native.SetIdsFn SetSuppressTokens;
        internal Native.ReleaseFn FreeSuppressTokens;

        internal WhisperApi(IntPtr table) : base(table, new[] {
            "InitModel", "DestroyModel", "QueryModel", "FreeQueryResult", "SetConfigProperty", "GetConfigProperty",
            "FreeConfigProperty", "GetLangToId", "SetLangToId", "FreeLangToId", "GetBeginSuppressTokens",
            "SetBeginSuppressTokens", "FreeBeginSuppressTokens", "GetSuppressTokens", "SetSuppressTokens",
            "FreeSuppressTokens", "CancelModel" })
        {
        }
    }
#pragma warning restore 649
}
