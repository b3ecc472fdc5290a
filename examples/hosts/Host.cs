// usage: Host.exe CONFIG: plays until something is heard. Status 0 when all is well, else the
// number of the step that was not.
using System;
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
struct State {
    public uint Version, Code, StatusLevel, StatusCategory, ErrorCode, ErrorDetail, StatusMessage;
    public uint ClientId, StreamSampleRate, StreamBlockFrames, DeviceSampleRate, DeviceBlockFrames;
    public uint EventCount, EventCapacity, InputMeterCount, OutputMeterCount;
    public ulong NextEventSequence;
    [MarshalAs(UnmanagedType.ByValArray, SizeConst = 8)] public Event[] Events;
    [MarshalAs(UnmanagedType.ByValArray, SizeConst = 32)] public Meter[] InputMeters;
    [MarshalAs(UnmanagedType.ByValArray, SizeConst = 32)] public Meter[] OutputMeters;
}

static class Consumer {
    const string Library = "tavistro_engine";
    [DllImport(Library)] static extern IntPtr tavistro_engine_create();
    [DllImport(Library)] static extern int tavistro_engine_start_from_config(IntPtr engine, string path);
    [DllImport(Library)] static extern int tavistro_engine_get_state(IntPtr engine, out State state);
    [DllImport(Library)] static extern void tavistro_engine_stop(IntPtr engine);
    [DllImport(Library)] static extern void tavistro_engine_destroy(IntPtr engine);

    static bool Heard(IntPtr engine, out State state) {
        for (int waits = 0;; ++waits) {
            tavistro_engine_get_state(engine, out state);
            if (state.Code == 3 && state.OutputMeters[0].PeakPermille > 0) return true;
            if (state.Code == 7 || waits == 600) return false;
            Thread.Sleep(50);
        }
    }

    static int Main(string[] arguments) {
        if (Marshal.SizeOf(typeof(State)) != 904) return 1;
        if (Marshal.OffsetOf(typeof(State), "OutputMeters").ToInt64() != 648) return 1;
        IntPtr engine = tavistro_engine_create();
        State state;
        if (tavistro_engine_get_state(engine, out state) != 1 || state.Version != 5) return 2;
        if (state.EventCapacity != 8 || state.NextEventSequence != 1) return 3;
        if (tavistro_engine_start_from_config(engine, arguments[0]) != 1) return 4;
        if (!Heard(engine, out state) || state.StreamSampleRate != 48000) return 5;
        tavistro_engine_stop(engine);
        tavistro_engine_get_state(engine, out state);
        tavistro_engine_destroy(engine);
        return state.Code == 6 ? 0 : 6;
    }
}
