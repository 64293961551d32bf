// The library's two tables as delegates. Each field is read from the slot of
// its own name: the enums follow the header's slot order.
using System;
using System.Runtime.InteropServices;

namespace Velmora
{
    internal enum LlmSlot
    {
        InitModel, DestroyModel, QueryModel, StreamModel, FreeQueryResult, SetConfigProperty, GetConfigProperty,
        FreeConfigProperty, SetStopStrings, GetStopStrings, FreeStopStrings, SetStopTokens, GetStopTokens,
        FreeStopTokens, Tokenize, FreeTokens, CancelModel, CompileModel
    }

    internal enum WhisperSlot
    {
        InitModel, DestroyModel, QueryModel, FreeQueryResult, SetConfigProperty, GetConfigProperty,
        FreeConfigProperty, GetLangToId, SetLangToId, FreeLangToId, GetBeginSuppressTokens, SetBeginSuppressTokens,
        FreeBeginSuppressTokens, GetSuppressTokens, SetSuppressTokens, FreeSuppressTokens, CancelModel
    }

    /// <summary>The slots both families have, for what the two model classes share. Fields, read
    /// at every call: the tests wrap the release slots to count them.</summary>
    internal abstract class CommonSlots
    {
        internal Native.HandleFn DestroyModel;
        internal Native.SetPropertyFn SetConfigProperty;
        internal Native.GetPropertyFn GetConfigProperty;
        internal Native.ReleaseFn FreeConfigProperty;
        internal Native.HandleFn CancelModel;

        protected static T ReadSlot<T>(IntPtr table, int slot)
        {
            return Marshal.GetDelegateForFunctionPointer<T>(Marshal.ReadIntPtr(table, slot * IntPtr.Size));
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

        static T Read<T>(IntPtr table, LlmSlot slot) { return ReadSlot<T>(table, (int)slot); }

        internal LlmApi(IntPtr table)
        {
            InitModel = Read<Native.LlmInitFn>(table, LlmSlot.InitModel);
            DestroyModel = Read<Native.HandleFn>(table, LlmSlot.DestroyModel);
            QueryModel = Read<Native.QueryFn>(table, LlmSlot.QueryModel);
            StreamModel = Read<Native.StreamFn>(table, LlmSlot.StreamModel);
            FreeQueryResult = Read<Native.ReleaseFn>(table, LlmSlot.FreeQueryResult);
            SetConfigProperty = Read<Native.SetPropertyFn>(table, LlmSlot.SetConfigProperty);
            GetConfigProperty = Read<Native.GetPropertyFn>(table, LlmSlot.GetConfigProperty);
            FreeConfigProperty = Read<Native.ReleaseFn>(table, LlmSlot.FreeConfigProperty);
            SetStopStrings = Read<Native.SetStringsFn>(table, LlmSlot.SetStopStrings);
            GetStopStrings = Read<Native.GetListFn>(table, LlmSlot.GetStopStrings);
            FreeStopStrings = Read<Native.FreeStringsFn>(table, LlmSlot.FreeStopStrings);
            SetStopTokens = Read<Native.SetIdsFn>(table, LlmSlot.SetStopTokens);
            GetStopTokens = Read<Native.GetListFn>(table, LlmSlot.GetStopTokens);
            FreeStopTokens = Read<Native.ReleaseFn>(table, LlmSlot.FreeStopTokens);
            Tokenize = Read<Native.TokenizeFn>(table, LlmSlot.Tokenize);
            FreeTokens = Read<Native.ReleaseFn>(table, LlmSlot.FreeTokens);
            CancelModel = Read<Native.HandleFn>(table, LlmSlot.CancelModel);
            CompileModel = Read<Native.CompileFn>(table, LlmSlot.CompileModel);
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

        static T Read<T>(IntPtr table, WhisperSlot slot) { return ReadSlot<T>(table, (int)slot); }

        internal WhisperApi(IntPtr table)
        {
            InitModel = Read<Native.WhisperInitFn>(table, WhisperSlot.InitModel);
            DestroyModel = Read<Native.HandleFn>(table, WhisperSlot.DestroyModel);
            QueryModel = Read<Native.TranscribeFn>(table, WhisperSlot.QueryModel);
            FreeQueryResult = Read<Native.ReleaseFn>(table, WhisperSlot.FreeQueryResult);
            SetConfigProperty = Read<Native.SetPropertyFn>(table, WhisperSlot.SetConfigProperty);
            GetConfigProperty = Read<Native.GetPropertyFn>(table, WhisperSlot.GetConfigProperty);
            FreeConfigProperty = Read<Native.ReleaseFn>(table, WhisperSlot.FreeConfigProperty);
            GetLangToId = Read<Native.GetListFn>(table, WhisperSlot.GetLangToId);
            SetLangToId = Read<Native.SetLanguagesFn>(table, WhisperSlot.SetLangToId);
            FreeLangToId = Read<Native.ReleaseFn>(table, WhisperSlot.FreeLangToId);
            GetBeginSuppressTokens = Read<Native.GetListFn>(table, WhisperSlot.GetBeginSuppressTokens);
            SetBeginSuppressTokens = Read<Native.SetIdsFn>(table, WhisperSlot.SetBeginSuppressTokens);
            FreeBeginSuppressTokens = Read<Native.ReleaseFn>(table, WhisperSlot.FreeBeginSuppressTokens);
            GetSuppressTokens = Read<Native.GetListFn>(table, WhisperSlot.GetSuppressTokens);
            SetSuppressTokens = Read<Native.SetIdsFn>(table, WhisperSlot.SetSuppressTokens);
            FreeSuppressTokens = Read<Native.ReleaseFn>(table, WhisperSlot.FreeSuppressTokens);
            CancelModel = Read<Native.HandleFn>(table, WhisperSlot.CancelModel);
        }
    }
}
