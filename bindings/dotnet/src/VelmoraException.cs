using System;
using System.Collections.Generic;
using System.Text.RegularExpressions;

namespace Velmora
{
    /// <summary>A slot failed: <see cref="Exception.Message"/> is the library's text in one line (the
    /// runtime's own sentence without the source places of its checks), <see cref="LibraryMessage"/> the
    /// full text and <see cref="Status"/> the slot's return value.</summary>
    public class VelmoraException : Exception
    {
        // Where the runtime says which file and check failed: kept on LibraryMessage only.
        static readonly Regex RuntimePlace = new Regex(@"(?:Check '.*?' failed at |Exception from )[^\n]*?:\d+:\s*",
                                                       RegexOptions.Singleline);

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
