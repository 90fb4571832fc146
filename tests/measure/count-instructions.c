/* SPDX-License-Identifier: Apache-2.0 */
/* A plugin of the emulator: counts the guest's instructions, thread by thread, and prints the count whenever the guest
   sets a mark (a prctl that no kernel knows, see Measure.cpp), and the sum at the guest's end. The few declarations of
   the plugin interface stand here because the emulator's package does not bring its header. */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

struct qemu_plugin_tb;
typedef uint64_t plugin_id;
void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id id, void (*callback)(plugin_id, struct qemu_plugin_tb*));
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* tb, void (*callback)(unsigned int, void*), int flags,
                                          void* data);
void qemu_plugin_register_vcpu_syscall_cb(plugin_id id,
                                          void (*callback)(plugin_id, unsigned int, int64_t, uint64_t, uint64_t,
                                                           uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t));
void qemu_plugin_register_atexit_cb(plugin_id id, void (*callback)(plugin_id, void*), void* data);

int qemu_plugin_version = 1;

#define MAX_THREADS 256
#define MIPS_O32_PRCTL 4192
#define MARK 0x4f525600

/* One thread of the guest writes one of them only. */
static uint64_t counts[MAX_THREADS];

static void executed(unsigned int thread, void* instructions) {
    if (thread < MAX_THREADS)
        counts[thread] += (uintptr_t)instructions;
}

static void translated(plugin_id id, struct qemu_plugin_tb* tb) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(tb, executed, 0, (void*)(uintptr_t)qemu_plugin_tb_n_insns(tb));
}

static void called(plugin_id id, unsigned int thread, int64_t number, uint64_t a1, uint64_t a2, uint64_t a3,
                   uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8) {
    (void)id, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
    if (number == MIPS_O32_PRCTL && a1 == MARK && thread < MAX_THREADS)
        fprintf(stderr, "mark %u %u %llu\n", (unsigned)a2, thread, (unsigned long long)counts[thread]);
}

static void ended(plugin_id id, void* data) {
    (void)id, (void)data;
    unsigned long long sum = 0;
    for (unsigned thread = 0; thread < MAX_THREADS; ++thread)
        sum += counts[thread];
    fprintf(stderr, "total %llu\n", sum);
}

__attribute__((visibility("default"))) int qemu_plugin_install(plugin_id id, const void* info, int argc, char** argv) {
    (void)info, (void)argc, (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
    qemu_plugin_register_vcpu_syscall_cb(id, called);
    qemu_plugin_register_atexit_cb(id, ended, NULL);
    return 0;
}
