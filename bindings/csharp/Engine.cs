using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;

namespace Tavistro
{
    /// <summary>The engine cannot be created.</summary>
    public class EngineException : Exception
    {
        public EngineException(string message) : base(message) { }
    }

    /// <summary>A run was not started.</summary>
    public sealed class StartRefusedException : EngineException
    {
        internal StartRefusedException(ErrorCode code) : base("the start was refused: " + code.Text()) { Code = code; }
        public ErrorCode Code { get; }
    }

    /// <summary>An error ended the run.</summary>
    public sealed class RunFailedException : EngineException
    {
        internal RunFailedException(EngineState state)
            : base("the run failed: " + state.ErrorCode.Text() + " (" + state.ErrorDetail.Text() + ")")
        {
            State = state;
        }
        public EngineState State { get; }
        public ErrorCode Code => State.ErrorCode;
    }

    internal sealed class EngineHandle : SafeHandle
    {
        public EngineHandle() : base(IntPtr.Zero, true) { }
        public override bool IsInvalid => handle == IntPtr.Zero;
        protected override bool ReleaseHandle()
        {
            Native.tavistro_engine_destroy(handle);
            return true;
        }
    }

    internal static class Native
    {
        // .NET adds the system's prefix and ending.
        private const string Library = "tavistro_engine";

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern EngineHandle tavistro_engine_create();
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int tavistro_engine_start_from_config(EngineHandle engine, byte[] path);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int tavistro_engine_get_state(EngineHandle engine, byte[] record);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void tavistro_engine_stop(EngineHandle engine);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void tavistro_engine_destroy(IntPtr engine);
    }

    internal static class Lists
    {
        internal static IReadOnlyList<T> Of<T>(int capacity, uint count, Func<int, T> entry)
        {
            var list = new T[Math.Min(count, (uint)capacity)];
            for (int i = 0; i < list.Length; ++i) list[i] = entry(i);
            return list;
        }
    }

    public sealed class EventArrivedArgs : EventArgs
    {
        internal EventArrivedArgs(EngineEvent value, ulong missed) { Event = value; Missed = missed; }
        public EngineEvent Event { get; }
        /// <summary>Events directly before this one that were no longer in the record.</summary>
        public ulong Missed { get; }
    }

    public sealed class StateArgs : EventArgs
    {
        internal StateArgs(EngineState state) { State = state; }
        public EngineState State { get; }
    }

    /// <summary>
    /// The engine; a process has one at a time. Any thread may call any method; Start, Stop and Dispose wait for each
    /// other. Never call one from an audio callback. Dispose ends the run: an engine that is only forgotten plays until
    /// the garbage collector finds it.
    /// </summary>
    public sealed class Engine : IDisposable
    {
        private readonly EngineHandle handle;
        private readonly object control = new object();  // the library takes start and stop one at a time
        private readonly object polling = new object();
        private Timer timer;
        private SynchronizationContext context;
        private ulong nextEvent = 1;
        private StateCode lastState;

        /// <summary>Throws EngineException when this process has an engine or the library is of another version.</summary>
        public Engine()
        {
            handle = Native.tavistro_engine_create();
            if (handle.IsInvalid) throw new EngineException("this process has an engine already");
            uint version = BitConverter.ToUInt32(Record(), 0);
            if (version == EngineState.Version) return;
            handle.Dispose();
            throw new EngineException("the library has version " + version + " of the state record, not " +
                                      EngineState.Version);
        }

        /// <summary>The state is another than at the last poll.</summary>
        public event EventHandler<StateArgs> StateChanged;
        /// <summary>An event came since the last poll.</summary>
        public event EventHandler<EventArrivedArgs> EventArrived;
        /// <summary>A poll; the record has new meters once a second.</summary>
        public event EventHandler<StateArgs> Polled;

        /// <summary>The state now.</summary>
        public EngineState State => new EngineState(Record());

        /// <summary>
        /// Starts a run with a configuration file, and returns at once: the state tells how it goes on. A run that has
        /// failed is stopped first. Throws StartRefusedException when a run is in progress.
        /// </summary>
        public void Start(string configPath)
        {
            // The library reads the path in the process's code page on Windows.
            var encoding = Environment.OSVersion.Platform == PlatformID.Win32NT ? Encoding.Default : new UTF8Encoding(false);
            lock (control)
            {
                if (State.State == StateCode.Failed) Native.tavistro_engine_stop(handle);
                lock (polling)
                {
                    if (Native.tavistro_engine_start_from_config(handle, encoding.GetBytes(configPath + '\0')) == 0)
                        throw new StartRefusedException(State.ErrorCode);
                    nextEvent = 1;
                }
            }
        }

        /// <summary>Ends the run, if there is one. Blocks, about 100 ms, until its threads have ended.</summary>
        public void Stop()
        {
            lock (control) Native.tavistro_engine_stop(handle);
        }

        /// <summary>
        /// Waits until audio plays. Throws RunFailedException when the run ends before, and TimeoutException.
        /// </summary>
        public EngineState WaitUntilRunning(TimeSpan timeout)
        {
            var watch = System.Diagnostics.Stopwatch.StartNew();
            while (true)
            {
                EngineState state = State;
                if (state.State == StateCode.Running) return state;
                if (state.State == StateCode.Failed || state.State == StateCode.Stopped) throw new RunFailedException(state);
                if (watch.Elapsed > timeout) throw new TimeoutException("not running: " + state.StatusMessage.Text());
                Thread.Sleep(20);
            }
        }

        /// <summary>Looks once, and raises what is new: first events, then StateChanged, then Polled.</summary>
        public EngineState Poll()
        {
            lock (polling)
            {
                EngineState state = State;
                foreach (EngineEvent one in state.Events)
                {
                    if (one.Sequence < nextEvent) continue;
                    ulong missed = one.Sequence - nextEvent;
                    nextEvent = one.Sequence + 1;
                    EventArrived?.Invoke(this, new EventArrivedArgs(one, missed));
                }
                bool changed = state.State != lastState;
                lastState = state.State;
                if (changed) StateChanged?.Invoke(this, new StateArgs(state));
                Polled?.Invoke(this, new StateArgs(state));
                return state;
            }
        }

        /// <summary>
        /// Polls from now on, until Dispose. Events are raised in the SynchronizationContext of the caller, such as
        /// that of a window; without one, on a thread of the pool.
        /// </summary>
        public void StartPolling(TimeSpan interval)
        {
            context = SynchronizationContext.Current;
            timer?.Dispose();
            timer = new Timer(_ => OnTimer(), null, TimeSpan.Zero, interval);
        }

        public void Dispose()
        {
            using (var ended = new ManualResetEvent(false))
            {
                bool mayWait = context == null && !Monitor.IsEntered(polling);  // not inside a handler
                if (timer != null && timer.Dispose(ended) && mayWait) ended.WaitOne();
            }
            timer = null;
            lock (control)
            {
                if (!handle.IsClosed) Native.tavistro_engine_stop(handle);
                handle.Dispose();
            }
        }

        private void OnTimer()
        {
            if (context != null)
            {
                context.Post(_ => PollIfOpen(), null);
            }
            else if (Monitor.TryEnter(polling))  // a poll that takes longer than the interval is not followed by another
            {
                try { PollIfOpen(); }
                finally { Monitor.Exit(polling); }
            }
        }

        private void PollIfOpen()
        {
            try { Poll(); }
            catch (ObjectDisposedException) { }
        }

        private byte[] Record()
        {
            var record = new byte[EngineState.Bytes];
            Native.tavistro_engine_get_state(handle, record);
            return record;
        }
    }
}
