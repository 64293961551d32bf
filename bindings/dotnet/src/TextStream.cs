// Streaming: StreamModel blocks until the generation ends, so it runs on a
// worker thread that hands the pieces to the consumer through a queue.
using System;
using System.Collections;
using System.Collections.Concurrent;
using System.Collections.Generic;
using System.Text;
using System.Threading;

namespace Velmora
{
    internal sealed class TextStream : IEnumerable<string>
    {
        readonly ModelCore core;
        readonly LlmApi api;
        readonly byte[] prompt;
        readonly CancellationToken token;

        internal TextStream(ModelCore core, LlmApi api, byte[] prompt, CancellationToken token)
        {
            this.core = core;
            this.api = api;
            this.prompt = prompt;
            this.token = token;
        }

        public IEnumerator<string> GetEnumerator()
        {
            core.ThrowIfDisposed();
            return new StreamEnumerator(core, api, prompt, token);
        }

        IEnumerator IEnumerable.GetEnumerator() { return GetEnumerator(); }
    }

    /// <summary>One generation on its worker. Referenced by the worker, never the enumerator, so an
    /// abandoned enumerator can be finalized (and stop the generation) while this runs.</summary>
    internal sealed class StreamRun
    {
        readonly ModelCore core;
        readonly LlmApi api;
        readonly byte[] prompt;
        readonly Native.TextFn onText;  // native code calls it until StreamModel returns
        volatile bool stop;
        Canceller canceller;
        Thread worker;
        internal readonly BlockingCollection<byte[]> Pieces = new BlockingCollection<byte[]>();
        // The thread that must not wait for this run (it would wait for itself); none once abandoned.
        volatile int consumerThread = Thread.CurrentThread.ManagedThreadId;
        internal Exception Failure;

        internal StreamRun(ModelCore core, LlmApi api, byte[] prompt)
        {
            this.core = core;
            this.api = api;
            this.prompt = prompt;
            onText = OnText;
        }

        int OnText(IntPtr piece)
        {
            try { Pieces.Add(Text.Bytes(piece)); }
            catch (Exception) { return 1; }
            // Also covers a stop that came before the run began, which CancelModel forgets.
            return stop ? 1 : 0;
        }

        /// <summary>On the consumer's thread: waits for the model, then starts the worker.</summary>
        internal void Start()
        {
            IntPtr raw = core.Acquire();
            try
            {
                canceller = new Canceller(api.CancelModel, raw);
                core.ActiveStream = this;
                worker = new Thread(Run) { IsBackground = true, Name = "velmora-stream" };
                worker.Start(raw);
            }
            catch
            {
                core.ActiveStream = null;
                core.Release();
                throw;
            }
        }

        void Run(object raw)
        {
            try
            {
                core.Family.Lock.EnterReadLock();
                try
                {
                    Family.Begin();
                    Family.Check("StreamModel", api.StreamModel((IntPtr)raw, prompt, onText));
                }
                finally { core.Family.Lock.ExitReadLock(); }
            }
            catch (Exception e) { Failure = e; }
            finally
            {
                canceller.End();
                core.ActiveStream = null;
                core.Release();
                Pieces.CompleteAdding();
                GC.KeepAlive(onText);
            }
        }

        /// <summary>Any thread; never waits for the generation.</summary>
        internal void Stop()
        {
            stop = true;
            if (canceller != null) canceller.Fire();
        }

        internal bool IsConsumer { get { return consumerThread == Thread.CurrentThread.ManagedThreadId; } }

        /// <summary>From the finalizer of an enumerator dropped mid-way: nobody consumes the pieces any
        /// more, and its thread may wait for the run to end like any other.</summary>
        internal void Abandon()
        {
            consumerThread = -1;
            Stop();
        }

        internal void Join() { worker.Join(); }
    }

    internal sealed class StreamEnumerator : IEnumerator<string>
    {
        readonly ModelCore core;
        readonly LlmApi api;
        readonly byte[] prompt;
        readonly CancellationToken token;
        // Pieces may split a character; the decoder carries its bytes to the next piece.
        readonly Decoder decoder = Text.NewDecoder();
        StreamRun run;
        CancellationTokenRegistration registration;
        bool ended, finished;
        string current;

        internal StreamEnumerator(ModelCore core, LlmApi api, byte[] prompt, CancellationToken token)
        {
            this.core = core;
            this.api = api;
            this.prompt = prompt;
            this.token = token;
        }

        public string Current { get { return current; } }
        object IEnumerator.Current { get { return current; } }

        public bool MoveNext()
        {
            if (finished) return false;
            if (run == null)
            {
                if (token.IsCancellationRequested) { finished = true; token.ThrowIfCancellationRequested(); }
                var starting = new StreamRun(core, api, prompt);
                starting.Start();  // may throw: then there is no run to stop
                run = starting;
                registration = token.Register(run.Stop);
            }
            try
            {
                byte[] piece;
                while (!ended && run.Pieces.TryTake(out piece, Timeout.Infinite, token))
                {
                    string text = Decode(piece, false);
                    if (text.Length > 0) { current = text; return true; }
                }
                // A run that ended as the token was cancelled counts as cancelled all the same.
                token.ThrowIfCancellationRequested();
            }
            catch (OperationCanceledException)
            {
                Dispose();
                throw;
            }
            if (!ended)
            {
                ended = true;
                Finish();
                string rest = Decode(Array.Empty<byte>(), true);
                if (rest.Length > 0) { current = rest; return true; }
            }
            finished = true;
            if (run.Failure != null) throw run.Failure;
            return false;
        }

        string Decode(byte[] bytes, bool flush)
        {
            var chars = new char[decoder.GetCharCount(bytes, 0, bytes.Length, flush)];
            int n = decoder.GetChars(bytes, 0, bytes.Length, chars, 0, flush);
            return new string(chars, 0, n);
        }

        void Finish()
        {
            run.Join();
            registration.Dispose();
            GC.SuppressFinalize(this);
        }

        public void Reset() { throw new NotSupportedException(); }

        /// <summary>Stops a generation still running and waits for it to end.</summary>
        public void Dispose()
        {
            if (run != null && !ended)
            {
                ended = true;
                run.Stop();
                byte[] ignored;
                while (run.Pieces.TryTake(out ignored, Timeout.Infinite)) { }
                Finish();
            }
            finished = true;
        }

        ~StreamEnumerator()
        {
            if (run != null && !ended) run.Abandon();
        }
    }
}
