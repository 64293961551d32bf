// What both model classes share: the handle's lifetime, one call at a time
// per handle, settings by name and id lists.
using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;
using System.Threading;

namespace Velmora
{
    /// <summary>Ends the model exactly once, from Dispose or the finalizer, and only after the
    /// last call using it has returned (every call holds a reference).</summary>
    internal sealed class ModelHandle : SafeHandle
    {
        readonly Family family;
        readonly CommonSlots slots;

        internal ModelHandle(Family family, CommonSlots slots) : base(IntPtr.Zero, true)
        {
            this.family = family;
            this.slots = slots;
        }

        public override bool IsInvalid { get { return handle == IntPtr.Zero; } }

        internal void Attach(IntPtr value) { SetHandle(value); }

        protected override bool ReleaseHandle()
        {
            family.Lock.EnterReadLock();
            try { slots.DestroyModel(handle); }
            finally { family.Lock.ExitReadLock(); }
            return true;
        }
    }

    /// <summary>CancelModel for one run, refused once the run is over: a late cancel
    /// must not stop the handle's next run, which may have begun by then.</summary>
    internal sealed class Canceller
    {
        readonly object sync = new object();
        readonly Native.HandleFn cancel;
        readonly IntPtr raw;
        bool over;

        internal Canceller(Native.HandleFn cancel, IntPtr raw) { this.cancel = cancel; this.raw = raw; }

        internal void Fire() { lock (sync) if (!over) cancel(raw); }
        internal void End() { lock (sync) over = true; }

        /// <summary>Cancels the run whenever the token is cancelled, repeating until disposed: the library
        /// forgets a cancel that lands before its run has begun.</summary>
        internal static IDisposable Repeating(Native.HandleFn cancel, IntPtr raw, CancellationToken token)
        {
            var canceller = new Canceller(cancel, raw);
            var repeat = new Timer(_ => canceller.Fire());
            CancellationTokenRegistration registration = token.Register(() => repeat.Change(0, 20));
            return new Ending(() =>
            {
                canceller.End();
                registration.Dispose();
                repeat.Dispose();
            });
        }

        sealed class Ending : IDisposable
        {
            readonly Action end;
            internal Ending(Action end) { this.end = end; }
            public void Dispose() { end(); }
        }
    }

    internal sealed class ModelCore
    {
        internal readonly Family Family;
        internal readonly CommonSlots Slots;
        internal readonly ModelHandle Handle;
        readonly string owner;
        // Slots of one handle must not overlap (CancelModel aside). A semaphore rather than a
        // monitor: a stream takes it on the consumer's thread and its worker gives it back.
        readonly SemaphoreSlim gate = new SemaphoreSlim(1, 1);
        internal volatile StreamRun ActiveStream;

        internal ModelCore(Family family, CommonSlots slots, string owner)
        {
            Family = family;
            Slots = slots;
            Handle = new ModelHandle(family, slots);
            this.owner = owner;
        }

        internal delegate int InitFn(ref HostCallbacks callbacks, out IntPtr handle);

        /// <summary>The model directory, refused in one line naming it before the library sees it.</summary>
        internal static byte[] ModelPath(string modelDir)
        {
            byte[] path = Text.Encode(modelDir, nameof(modelDir));
            if (modelDir.Length == 0) throw new ArgumentException("modelDir is empty: give the model's directory", nameof(modelDir));
            if (!System.IO.Directory.Exists(modelDir))
                throw new System.IO.DirectoryNotFoundException("cannot load model: '" + System.IO.Path.GetFullPath(modelDir) + "' "
                    + (System.IO.File.Exists(modelDir) ? "is not a directory" : "does not exist"));
            return path;
        }

        /// <summary>Runs the family's InitModel. It replaces the family's callback pair, so it runs
        /// alone among the family's slots.</summary>
        internal void Init(string modelDir, InitFn init)
        {
            Family.Lock.EnterWriteLock();
            try
            {
                IntPtr raw;
                HostCallbacks callbacks = Family.Callbacks;
                Family.Begin();
                try { Family.Check("InitModel", init(ref callbacks, out raw)); }
                catch (VelmoraException e)
                {
                    throw new VelmoraException(e.Operation, e.Status, e.LibraryMessage, "cannot load model '" + modelDir + "'");
                }
                Family.Initialised = true;
                Handle.Attach(raw);
            }
            finally { Family.Lock.ExitWriteLock(); }
            Settings = new Settings(this);
        }

        internal Settings Settings { get; private set; }

        internal void ThrowIfDisposed()
        {
            if (Handle.IsClosed) throw new ObjectDisposedException(owner);
        }

        /// <summary>Takes the handle for one call: waits for other calls on it to end.</summary>
        internal IntPtr Acquire()
        {
            StreamRun run = ActiveStream;
            if (run != null && run.IsConsumer)
                throw new InvalidOperationException("A stream of this model is running on this thread; finish or dispose it first");
            ThrowIfDisposed();
            gate.Wait();
            bool added = false;
            try { Handle.DangerousAddRef(ref added); }
            catch (ObjectDisposedException) { }
            if (!added)
            {
                gate.Release();
                throw new ObjectDisposedException(owner);
            }
            return Handle.DangerousGetHandle();
        }

        internal void Release()
        {
            Handle.DangerousRelease();
            gate.Release();
        }

        internal Scope Use()
        {
            IntPtr raw = Acquire();
            Family.Lock.EnterReadLock();
            Family.Begin();
            return new Scope(this, raw);
        }

        internal struct Scope : IDisposable
        {
            readonly ModelCore core;
            internal readonly IntPtr Raw;
            internal Scope(ModelCore core, IntPtr raw) { this.core = core; Raw = raw; }
            public void Dispose()
            {
                core.Family.Lock.ExitReadLock();
                core.Release();
            }
        }

        /// <summary>CancelModel without waiting for anything; a no-op once disposed.</summary>
        internal void Cancel()
        {
            bool added = false;
            try { Handle.DangerousAddRef(ref added); }
            catch (ObjectDisposedException) { return; }
            try { Slots.CancelModel(Handle.DangerousGetHandle()); }
            finally { if (added) Handle.DangerousRelease(); }
        }

        internal void Dispose()
        {
            StreamRun run = ActiveStream;
            if (run != null) run.Stop();
            Handle.Dispose();
        }

        internal string GetProperty(string name)
        {
            byte[] key = Text.Encode(name, nameof(name));
            IntPtr value = IntPtr.Zero;
            using (Scope s = Use()) Family.Check("GetConfigProperty", Slots.GetConfigProperty(s.Raw, key, out value));
            return Text.TakeText(value, Slots.FreeConfigProperty);
        }

        /// <summary>Refuses a value the runtime is known to refuse at the next run, while the caller
        /// still knows which assignment it was.</summary>
        internal Action<string, string> CheckSetting = (name, value) => { };

        internal void SetProperty(string name, string value)
        {
            byte[] key = Text.Encode(name, nameof(name)), text = Text.Encode(value, nameof(value));
            CheckSetting(name, value);
            using (Scope s = Use()) Family.Check("SetConfigProperty", Slots.SetConfigProperty(s.Raw, key, text));
        }

        /// <summary>A copy of an id list; the library's buffer is given back before this returns.</summary>
        internal long[] GetIds(string operation, Native.GetListFn getter, Native.ReleaseFn release)
        {
            IntPtr ids = IntPtr.Zero;
            UIntPtr count = UIntPtr.Zero;
            using (Scope s = Use()) Family.Check(operation, getter(s.Raw, out ids, out count));
            return Text.TakeIds(ids, count, release);
        }

        internal void SetIds(string operation, Native.SetIdsFn setter, long[] ids)
        {
            using (Scope s = Use()) Family.Check(operation, setter(s.Raw, ids, (UIntPtr)ids.Length));
        }

        /// <summary>The items as an array, refusing a null sequence by the caller's parameter name.</summary>
        internal static T[] ToArray<T>(IEnumerable<T> items, string what)
        {
            if (items == null) throw new ArgumentNullException(what);
            return new List<T>(items).ToArray();
        }
    }
}
