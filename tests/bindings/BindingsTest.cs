// usage: test.exe FOLDER PROCESS MONITOR: a host with the class library. The process plays as client 4722.
using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Text.RegularExpressions;
using System.Threading;
using Tavistro;

static class BindingsTest
{
    static string folder;

    static void Check(bool condition, string what)
    {
        if (!condition) throw new Exception(what);
    }

    static T Until<T>(Func<T> value, Func<T, bool> condition, string what)
    {
        for (int i = 0; i < 300; ++i)
        {
            T now = value();
            if (condition(now)) return now;
            Thread.Sleep(100);
        }
        throw new Exception(what);
    }

    static E Throws<E>(Action action) where E : Exception
    {
        try { action(); }
        catch (E expected) { return expected; }
        throw new Exception("no " + typeof(E).Name);
    }

    static string Config(int id) => Path.Combine(folder, "ä" + id + ".ini");

    // The whole record of a run, and its statistics.
    static void Runs()
    {
        var engine = new Engine();
        var states = new List<StateCode>();
        int polls = 0;
        engine.StateChanged += (sender, change) => { lock (states) states.Add(change.State.State); };
        engine.Polled += (sender, poll) => ++polls;
        engine.StartPolling(TimeSpan.FromMilliseconds(5));
        engine.Start(Config(4721));
        EngineState state = engine.WaitUntilRunning(TimeSpan.FromSeconds(10));
        Check(state.ClientId == 4721 && state.StreamSampleRate == 48000 && state.DeviceBlockFrames == 256, "record");
        Check(state.StatusMessage == MessageId.Running && state.ErrorCode == ErrorCode.None, "codes");
        state = Until(() => engine.State, now => now.OutputMeters[0].PeakPermille > 400, "no peak");
        Check(state.OutputMeters.Count == 1 && state.InputMeters.Select(one => one.Channel).SequenceEqual(new uint[] { 5, 6 }),
              "meters");
        Statistics first = Until(() => StatisticsReader.Read(4721), now => now.RenderedFrames > 0, "no report");
        Until(() => StatisticsReader.Read(4721), now => now.RenderedFrames > first.RenderedFrames, "no other report");
        Check(first.State == StateCode.Running && first.RttHistogram.Count == Statistics.HistogramBoundsUs.Count, "statistics");
        Check(Throws<StartRefusedException>(() => engine.Start(Config(4721))).Code == ErrorCode.AlreadyStarted, "refused");
        Throws<EngineException>(() => new Engine());
        engine.Stop();
        Until(() => states.Count, count => states.Last() == StateCode.Stopped, "no StateChanged");
        lock (states) Check(states.Contains(StateCode.Running) && polls > states.Count, string.Join(" ", states));
        engine.StateChanged += (sender, change) => engine.Dispose();  // from a handler
        engine.Start(Config(4721));
        Until(() => engine, open => { try { return open.State == null; } catch (ObjectDisposedException) { return true; } },
              "Dispose in a handler");
        engine.Dispose();
    }

    // Events that were dropped are counted, and a run that failed can be started again.
    static void Fails()
    {
        using (var engine = new Engine())
        {
            var arrived = new List<EventArrivedArgs>();
            engine.EventArrived += (sender, one) => arrived.Add(one);
            engine.Start(Config(4723));
            Until(() => engine.Poll(), now => arrived.Count > 0, "no event");
            int early = arrived.Count;
            var failed = Throws<RunFailedException>(() => engine.WaitUntilRunning(TimeSpan.FromSeconds(30)));
            Check(failed.Code == ErrorCode.ClientStartFailed && failed.Message.Contains("network client did not start"), "code");
            engine.Poll();
            engine.Poll();
            EngineEvent last = arrived.Last().Event;
            Check(last.Kind == EventKind.GaveUp && arrived.Count == early + 8, "events " + arrived.Count);
            Check((ulong)arrived.Count + arrived[early].Missed == last.Sequence, "missed " + arrived[early].Missed);
            for (int i = 0; i < 2; ++i)
            {
                engine.Start(Path.Combine(folder, "missing.ini"));
                failed = Throws<RunFailedException>(() => engine.WaitUntilRunning(TimeSpan.FromSeconds(10)));
                Check(failed.Code == ErrorCode.ConfigInvalid, "missing file");
            }
            engine.Start(Config(4723));
            arrived.Clear();
            Until(() => engine.Poll(), now => arrived.Count > 0, "no event of the next run");
            Check(arrived[0].Event.Sequence == 1 && arrived[0].Missed == 0, "first event of the next run");
            engine.Stop();
            Check(Throws<StartRefusedException>(() => engine.Start("")).Code == ErrorCode.NoConfigPath, "no path");
        }
    }

    // The statistics agree with the monitor in every number.
    static void Agrees(int process, string monitor)
    {
        int handles = Directory.GetFiles("/proc/self/fd").Length;
        for (int i = 0; i < 20; ++i) StatisticsReader.Read(4722);
        Check(StatisticsReader.IsAlive(4722) && StatisticsReader.ClientIds().Contains(4722u), "not alive");
        Check(Directory.GetFiles("/proc/self/fd").Length == handles, "open files");
        using (Process host = Process.GetProcessById(process)) host.Kill();
        Until(() => StatisticsReader.IsAlive(4722), alive => !alive, "alive after its end");
        var start = new ProcessStartInfo(monitor, "4722 --once --json") { RedirectStandardOutput = true, UseShellExecute = false };
        string json = Process.Start(start).StandardOutput.ReadToEnd();
        string stats = Regex.Match(json, "\"stats\":{(.*?)}").Groups[1].Value;
        Statistics read = StatisticsReader.Read(4722);
        int compared = 0;
        foreach (var property in typeof(Statistics).GetProperties())
        {
            string name = Regex.Replace(property.Name, "(?<!^)([A-Z]|(?<=P)[0-9]{2})", "_$1").ToLower().Replace("p_", "p");
            object value = property.GetValue(read);
            string shown = value is IReadOnlyList<uint> list ? "[" + string.Join(",", list) + "]"
                                                             : Convert.ToDecimal(value).ToString();
            Check(stats.Contains("\"" + name + "\":" + shown), name + " is not " + shown + " in " + stats);
            ++compared;
        }
        Check(compared == Regex.Matches(stats, "\"\\w+\":(?!\")").Count, compared + " fields");
        File.Delete("/dev/shm/TavistroEngineStats_4722_v6");
    }

    static void Main(string[] arguments)
    {
        folder = arguments[0];
        Agrees(int.Parse(arguments[1]), arguments[2]);
        Runs();
        Fails();
        Check(StateCode.Running.Text() == "Running" && ((MessageId)999).Text() == "code 999", "texts");
    }
}
