/* A plugin for qemu's emulation of a process: prints how many instructions the process executed, as
 * callgrind does: "Collected : N". Debian has no header for plugins, so what is used of their
 * interface is declared here. One thread. */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

typedef uint64_t plugin_id;
struct qemu_plugin_tb; /* a run of instructions without a branch */

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* run);
void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id id,
                                           void (*translated)(plugin_id, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* run,
                                          void (*executed)(unsigned, void*), int flags,
                                          void* context);
void qemu_plugin_register_atexit_cb(plugin_id id, void (*ended)(plugin_id, void*), void* context);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = PLUGIN_VERSION;

static uint64_t instructions;

static void count_run(unsigned processor, void* length) {
    (void)processor;
    instructions += (uintptr_t)length;
}

static void prepare_run(plugin_id id, struct qemu_plugin_tb* run) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(run, count_run, 0, (void*)qemu_plugin_tb_n_insns(run));
}

static void print_count(plugin_id id, void* context) {
    (void)id, (void)context;
    fprintf(stderr, "Collected : %llu\n", (unsigned long long)instructions);
}

EXPORTED int qemu_plugin_install(plugin_id id, const void* info, int argc, char** argv) {
    (void)info, (void)argc, (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, prepare_run);
    qemu_plugin_register_atexit_cb(id, print_count, NULL);
    return 0;
}
