// A host in C#: runs the engine until Ctrl-C and prints what it does.
//
//     mcs Host.cs && mono Host.exe tavistro.ini
//
// On Windows csc in place of mcs. The engine library lies beside Host.exe, in the PATH of Windows or
// in LD_LIBRARY_PATH. A run that fails is stopped and started again after a pause, for as long as it
// takes.
using System;
using System.Linq;
using System.Runtime.InteropServices;
using System.Threading;

[StructLayout(LayoutKind.Sequential)]
struct Event {
    public ulong Sequence, TimeMs;
    public uint Kind, Subject, Attempt, MaxAttempts, ErrorCode, Message;
}

[StructLayout(LayoutKind.Sequential)]
struct Meter {
    public uint Channel, PeakPermille;
}

[StructLayout(LayoutKind.Sequential)]
struct Record {
    public uint Version, State, StatusLevel, StatusCategory, ErrorCode, ErrorDetail, StatusMessage;
    public uint ClientId, StreamSampleRate, StreamBlockFrames, DeviceSampleRate, DeviceBlockFrames;
    public uint EventCount, EventCapacity, InputMeterCount, OutputMeterCount;
    public ulong NextEventSequence;
    [MarshalAs(UnmanagedType.ByValArray, SizeConst = 8)] public Event[] Events;
    [MarshalAs(UnmanagedType.ByValArray, SizeConst = 32)] public Meter[] InputMeters;
    [MarshalAs(UnmanagedType.ByValArray, SizeConst = 32)] public Meter[] OutputMeters;
}

static class Host {
    const string Library = "tavistro_engine";
    [DllImport(Library)] static extern IntPtr tavistro_engine_create();
    [DllImport(Library)] static extern int tavistro_engine_start_from_config(IntPtr engine, string path);
    [DllImport(Library)] static extern int tavistro_engine_get_state(IntPtr engine, out Record record);
    [DllImport(Library)] static extern void tavistro_engine_stop(IntPtr engine);
    [DllImport(Library)] static extern void tavistro_engine_destroy(IntPtr engine);

    const int PollMs = 100, PollsPerMeters = 10, PollsPerRestart = 50;
    enum State : uint { Idle, Starting, Connected, Running, Restarting, Stopping, Stopped, Failed }
    static volatile bool stopRequested;

    // The record holds the last 8 events: a sequence number that is skipped is an event missed.
    static void ShowEvents(Record record, ref ulong nextSequence) {
        foreach (Event e in record.Events.Take((int)record.EventCount)) {
            if (e.Sequence < nextSequence) continue;
            if (e.Sequence > nextSequence) Console.WriteLine("missed {0} events", e.Sequence - nextSequence);
            nextSequence = e.Sequence + 1;
            Console.WriteLine("event {0}: kind {1}, attempt {2} of {3}, message {4}, error {5}",
                              e.Sequence, e.Kind, e.Attempt, e.MaxAttempts, e.Message, e.ErrorCode);
        }
    }

    static void ShowMeters(string name, Meter[] meters, uint count) {
        var peaks = meters.Take((int)count).Select(m => m.Channel + ":" + m.PeakPermille / 1000.0);
        Console.WriteLine(name + " peaks " + string.Join(" ", peaks));
    }

    // Runs until Ctrl-C or a failure.
    static void Run(IntPtr engine, string configPath) {
        State shown = State.Idle;
        ulong nextSequence = 1;  // each run counts its events from 1
        bool isStarted = tavistro_engine_start_from_config(engine, configPath) != 0;
        for (int polls = 1;; ++polls) {
            if (!isStarted || stopRequested) tavistro_engine_stop(engine);
            Record record;
            tavistro_engine_get_state(engine, out record);
            State state = (State)record.State;
            if (state != shown)
                Console.WriteLine("state {0}, message {1}, error {2}; stream {3} Hz, {4} frames", state,
                                  record.StatusMessage, record.ErrorCode, record.StreamSampleRate,
                                  record.StreamBlockFrames);
            shown = state;
            ShowEvents(record, ref nextSequence);
            if (state == State.Running && polls % PollsPerMeters == 0) {
                ShowMeters("output", record.OutputMeters, record.OutputMeterCount);
                ShowMeters("input", record.InputMeters, record.InputMeterCount);
            }
            if (!isStarted || stopRequested || state == State.Failed) break;
            Thread.Sleep(PollMs);
        }
        tavistro_engine_stop(engine);  // a run that failed needs it too before the next start
    }

    static int Main(string[] arguments) {
        IntPtr engine = tavistro_engine_create();
        Record record = new Record();
        bool fits = Marshal.SizeOf(record) == 904 && tavistro_engine_get_state(engine, out record) != 0 && record.Version == 5;
        if (arguments.Length != 1 || !fits) {
            Console.Error.WriteLine("usage: Host.exe CONFIG, with engine version 5");
            return 1;
        }
        Console.CancelKeyPress += (sender, e) => { e.Cancel = true; stopRequested = true; };
        while (!stopRequested) {
            Run(engine, arguments[0]);
            if (stopRequested) break;
            Console.WriteLine("the run failed; starting again in {0} s", PollsPerRestart * PollMs / 1000);
            for (int i = 0; i < PollsPerRestart && !stopRequested; ++i) Thread.Sleep(PollMs);
        }
        tavistro_engine_destroy(engine);
        return 0;
    }
}
