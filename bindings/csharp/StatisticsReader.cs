using System;
using System.Collections.Generic;
using System.IO;
using System.IO.MemoryMappedFiles;
using System.Runtime.InteropServices;
using System.Text.RegularExpressions;

namespace Tavistro
{
    /// <summary>
    /// The statistics blocks of running engines, in this or any other process of the computer. Every call opens the
    /// block anew, so that it finds that of a run which began since. Any thread.
    /// </summary>
    public static class StatisticsReader
    {
        private static readonly bool isWindows = Environment.OSVersion.Platform == PlatformID.Win32NT;
        private static string PathOf(uint clientId) => "/dev/shm/TavistroEngineStats_" + clientId + "_v6";

        /// <summary>
        /// What the engine with this client_id has published; null when there is none. An engine publishes once a
        /// second. The last values of an engine that was killed remain on Linux; see IsAlive.
        /// </summary>
        public static Statistics Read(uint clientId)
        {
            byte[] data = isWindows ? ReadMapping(clientId) : ReadFile(clientId);
            bool known = data != null && data[0] == 'T' && data[1] == 'E' && data[2] == 'N' && data[3] == 'G' &&
                         BitConverter.ToUInt32(data, 4) == Statistics.Version;
            return known ? new Statistics(data) : null;
        }

        /// <summary>True when an engine of this computer has this client_id.</summary>
        public static bool IsAlive(uint clientId)
        {
            if (isWindows) return Read(clientId) != null;
            const int exclusive = 2, withoutWaiting = 4;
            int block = open(PathOf(clientId), ReadOnlyAndCloseOnExec);
            if (block < 0) return false;
            try
            {
                return flock(block, exclusive | withoutWaiting) != 0;  // an engine holds the lock while it lives
            }
            finally
            {
                close(block);
            }
        }

        /// <summary>Of the engines that run on this computer; on Windows those from 1 to 64.</summary>
        public static IReadOnlyList<uint> ClientIds()
        {
            var ids = new List<uint>();
            if (isWindows)
            {
                for (uint id = 1; id <= 64; ++id) ids.Add(id);
            }
            else
            {
                foreach (string path in Directory.GetFiles("/dev/shm"))
                {
                    Match name = Regex.Match(path, @"/TavistroEngineStats_(\d+)_v6$");
                    if (name.Success && uint.TryParse(name.Groups[1].Value, out uint id)) ids.Add(id);
                }
            }
            ids.RemoveAll(id => !IsAlive(id));
            ids.Sort();
            return ids;
        }

        private static byte[] ReadMapping(uint clientId)
        {
            try
            {
                using (var block = MemoryMappedFile.OpenExisting("Local\\TavistroEngineStats_" + clientId + "_v6",
                                                                 MemoryMappedFileRights.Read))
                using (var view = block.CreateViewAccessor(0, Statistics.Bytes, MemoryMappedFileAccess.Read))
                {
                    var data = new byte[Statistics.Bytes];
                    // Single loads of whole words: the engine writes meanwhile.
                    for (int at = 0; at < data.Length; at += 8)
                        BitConverter.GetBytes(view.ReadUInt64(at)).CopyTo(data, at);
                    return data;
                }
            }
            catch (FileNotFoundException)
            {
                return null;
            }
        }

        // Not a mapping: others may truncate the block, and a mapping of it would end this process.
        private static byte[] ReadFile(uint clientId)
        {
            int block = open(PathOf(clientId), ReadOnlyAndCloseOnExec);
            if (block < 0) return null;
            try
            {
                var data = new byte[Statistics.Bytes];
                return pread(block, data, (IntPtr)data.Length, IntPtr.Zero) == (IntPtr)data.Length ? data : null;
            }
            finally
            {
                close(block);
            }
        }

        private const int ReadOnlyAndCloseOnExec = 0x80000;
        [DllImport("libc")]
        private static extern int open(string path, int flags);
        [DllImport("libc")]
        private static extern IntPtr pread(int file, byte[] data, IntPtr bytes, IntPtr offset);
        [DllImport("libc")]
        private static extern int flock(int file, int operation);
        [DllImport("libc")]
        private static extern int close(int file);
    }
}
