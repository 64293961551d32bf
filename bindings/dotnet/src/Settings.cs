// A model's settings by name, through the library's text forms.
using System;
using System.Globalization;

namespace Velmora
{
    /// <summary>
    /// Generation or transcription settings by name, e.g. <c>Settings["temperature"] = "0.7"</c>.
    /// Values are the library's own text forms; the typed accessors convert with the invariant
    /// culture. A name or value the library refuses throws <see cref="VelmoraException"/>.
    /// </summary>
    public sealed class Settings
    {
        readonly ModelCore core;

        internal Settings(ModelCore core) { this.core = core; }

        public string this[string name]
        {
            get { return core.GetProperty(name); }
            set { core.SetProperty(name, value); }
        }

        /// <summary>False where the library refuses to read the setting (an unknown name, or an
        /// optional one such as Whisper's "language" while it is unset).</summary>
        public bool TryGetValue(string name, out string value)
        {
            try
            {
                value = core.GetProperty(name);
                return true;
            }
            catch (VelmoraException)
            {
                value = null;
                return false;
            }
        }

        /// <summary>A size above <see cref="long.MaxValue"/> reads as the negative number the library
        /// takes for it: the unlimited 18446744073709551615 as -1, as <c>Set(name, -1L)</c> stores it.</summary>
        public long GetInt64(string name)
        {
            string text = this[name];
            long value;
            if (long.TryParse(text, NumberStyles.Integer, CultureInfo.InvariantCulture, out value)) return value;
            return unchecked((long)ulong.Parse(text, NumberStyles.Integer, CultureInfo.InvariantCulture));
        }
        public double GetDouble(string name) { return double.Parse(this[name], NumberStyles.Float, CultureInfo.InvariantCulture); }
        public bool GetBoolean(string name) { return this[name] == "true"; }

        public void Set(string name, long value) { this[name] = value.ToString(CultureInfo.InvariantCulture); }
        public void Set(string name, double value)
        {
            // The library would take "NaN" and "Infinity" and sample from nonsense.
            if (double.IsNaN(value) || double.IsInfinity(value))
                throw new ArgumentOutOfRangeException(nameof(value), value, name + " takes a finite number");
            this[name] = value.ToString("R", CultureInfo.InvariantCulture);
        }
        public void Set(string name, bool value) { this[name] = value ? "true" : "false"; }
    }
}
