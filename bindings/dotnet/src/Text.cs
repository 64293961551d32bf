// UTF-8 both ways, and copying buffers out before giving them back.
using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Velmora
{
    internal static class Text
    {
        static readonly UTF8Encoding Utf8 = new UTF8Encoding(false, false);

        /// <summary>NUL-terminated UTF-8. An embedded NUL is refused: the library would
        /// silently drop what follows it.</summary>
        internal static byte[] Encode(string text, string what)
        {
            if (text == null) throw new ArgumentNullException(what);
            if (text.IndexOf('\0') >= 0) throw new ArgumentException("embedded NUL character", what);
            byte[] bytes = new byte[Utf8.GetByteCount(text) + 1];
            Utf8.GetBytes(text, 0, text.Length, bytes, 0);
            return bytes;
        }

        internal static byte[] Bytes(IntPtr text)
        {
            if (text == IntPtr.Zero) return Array.Empty<byte>();
            int length = 0;
            while (Marshal.ReadByte(text, length) != 0) length++;
            byte[] bytes = new byte[length];
            Marshal.Copy(text, bytes, 0, length);
            return bytes;
        }

        internal static string Decode(IntPtr text)
        {
            return Utf8.GetString(Bytes(text));
        }

        internal static Decoder NewDecoder() { return Utf8.GetDecoder(); }

        internal static string TakeText(IntPtr text, Native.ReleaseFn release)
        {
            try { return Decode(text); }
            finally { release(text); }
        }

        /// <summary>An empty list is never allocated: nothing to release without a pointer.</summary>
        internal static long[] TakeIds(IntPtr ids, UIntPtr count, Native.ReleaseFn release)
        {
            if (ids == IntPtr.Zero) return Array.Empty<long>();
            try
            {
                var result = new long[checked((int)count.ToUInt64())];
                Marshal.Copy(ids, result, 0, result.Length);
                return result;
            }
            finally { release(ids); }
        }

        /// <summary>Native copies of strings for an array argument; free with <see cref="FreeAll"/>.</summary>
        internal static IntPtr[] Allocate(string[] strings, string what)
        {
            var pointers = new IntPtr[strings.Length];
            try
            {
                for (int i = 0; i < strings.Length; i++)
                {
                    byte[] bytes = Encode(strings[i], what);
                    pointers[i] = Marshal.AllocHGlobal(bytes.Length);
                    Marshal.Copy(bytes, 0, pointers[i], bytes.Length);
                }
            }
            catch
            {
                FreeAll(pointers);
                throw;
            }
            return pointers;
        }

        internal static void FreeAll(IntPtr[] pointers)
        {
            foreach (IntPtr p in pointers) if (p != IntPtr.Zero) Marshal.FreeHGlobal(p);
        }
    }
}
