# SPDX-License-Identifier: GPL-2.0
"""The search of the kernel log finds every kind of report, and exempts one kind of warning."""

import io

import kernel_log
import pytest

BEGINNING = "[    0.000000] Linux version 6.12.117-kelm-debug (root@vm) (gcc 12.2.0) #1 SMP\n"

CLEAN = BEGINNING + """\
[    0.000000] rcu: Preemptible hierarchical RCU implementation.
[    0.000000] Lock dependency validator: Copyright (c) 2006 Red Hat, Inc., Ingo Molnar
[    0.010000] kasan: KernelAddressSanitizer initialized (generic)
[    0.020000] mtrr: your CPUs had inconsistent fixed MTRR settings
[    0.450000] kmemleak: Kernel memory leak detector initialized (mem pool available: 31000)
[    3.100000] kelm: loading out-of-tree module taints kernel.
[    0.000000]  RCU CPU stall warnings timeout set to 60 (rcu_cpu_stall_timeout).
[    9.000000] Disabling lock debugging due to kernel taint
"""

# As kernels print them, the line that tells; where it differs, one for each kernel.
FAULTS = """\
WARNING: CPU: 1 PID: 204 at kernel/softirq.c:376 __local_bh_enable_ip+0x9b/0xd0
BUG: kernel NULL pointer dereference, address: 0000000000000000
BUG: unable to handle page fault for address: ffffffffc0a0d3c0
kernel BUG at mm/slub.c:563!
Oops: 0010 [#1] PREEMPT SMP NOPTI
Oops: general protection fault, probably for non-canonical address 0xdead000000000100
general protection fault, probably for non-canonical address 0xdead000000000100: 0000 [#1]
BUG: sleeping function called from invalid context at net/core/sock.c:3536
BUG: scheduling while atomic: swapper/1/0/0x00000100
BUG: spinlock bad magic on CPU#0, insmod/211
BUG: MAX_LOCKDEP_CHAINS too low!
WARNING: possible recursive locking detected
WARNING: inconsistent lock state
WARNING: possible circular locking dependency detected
WARNING: suspicious RCU usage
INFO: possible irq lock inversion dependency detected
refcount_t: underflow; use-after-free.
ref_tracker: net notrefcnt@00000000f1b2c3d4 has 1/1 users at
leaked reference.
unregister_netdevice: waiting for eth0 to become free. Usage count = 2
BUG: KASAN: slab-use-after-free in kelm_rx+0x5d/0x60 [kelm]
UBSAN: array-index-out-of-bounds in net/core/dev.c:100:3
ODEBUG: free active (active state 0) object: 00000000 object type: timer_list hint: f+0x0/0x10
kmemleak: 2 new suspected memory leaks (see /sys/kernel/debug/kmemleak)
list_del corruption. prev->next should be ffff888003d5e8b8, but was dead000000000122
BUG kmalloc-64 (Tainted: G           OE     ): Right Redzone overwritten
BUG kmalloc-64 (Tainted: G           OE     ): Object corrupt
BUG kmalloc-96 (Tainted: G           OE     ): Poison overwritten
BUG kelm_vrf (Tainted: G    B      OE): Objects remaining in kelm_vrf on __kmem_cache_shutdown()
watchdog: BUG: soft lockup - CPU#0 stuck for 26s! [insmod:211]
watchdog: Watchdog detected hard LOCKUP on cpu 1
rcu: INFO: rcu_preempt self-detected stall on CPU
rcu: INFO: rcu_sched detected stalls on CPUs/tasks:
INFO: task kelm_vrf_cleanu:230 blocked for more than 120 seconds.
insmod: page allocation failure: order:5, mode:0x40cc0(GFP_KERNEL|__GFP_COMP)
kelmctl[310]: segfault at 8 ip 000055d0c8a51c1f sp 00007ffd1c3a4b70 error 4 in kelmctl
Call Trace:
""".splitlines()


def forced_unload(message="Found Vrf 00000000c0ffee00 (net: 00000000deadbeef)", comm="rmmod",
                  within=""):
    return f"""\
[   12.000001] ------------[ cut here ]------------
[   12.000002] {message}
[   12.000003] WARNING: CPU: 0 PID: 512 at platform/linux/log.c:30 kelm_WARN+0x7a/0x90 [kelm]
[   12.000004] Modules linked in: kelm(OE-) veth overlay 9p
{within}\
[   12.000005] CPU: 0 PID: 512 Comm: {comm} Tainted: G   R       OE      6.12.117 #1
[   12.000006] Call Trace:
[   12.000007]  <TASK>
[   12.000008]  kelm_exit+0x4d/0x80 [kelm]
[   12.000009] ---[ end trace 0000000000000000 ]---
"""


def search(text):
    return kernel_log.search(text)


def test_clean_log():
    assert search(CLEAN) == ([], 0)


@pytest.mark.parametrize("fault", FAULTS)
@pytest.mark.parametrize("prefix", ["[   10.123456] ", "<4>[   10.123456][  T211] "])
def test_fault_is_found(fault, prefix):
    reports, _ = search(CLEAN + prefix + fault + "\n" + "[   11.000000] kelm: all is well\n")
    assert reports == [CLEAN.count("\n")]


def test_only_the_forced_unloads_own_warnings_are_exempt():
    assert search(CLEAN + 3 * forced_unload() + forced_unload(comm="insmod")) == ([], 4)
    for other in (
            forced_unload(comm="kelm-agent"),
            forced_unload("Packet structure with 0 refcount still in hash table."),
            forced_unload("A Found Vrf elsewhere")):
        reports, exempt = search(CLEAN + forced_unload() + other)
        assert len(reports) == 2 and exempt == 1  # WARNING and Call Trace
    # What another processor reports in the middle of an exempt warning counts.
    for fault in FAULTS:
        reports, exempt = search(CLEAN + forced_unload(within=f"[   12.000004] {fault}\n"))
        assert len(reports) == 1 and exempt == 1, fault
    # A warning that was cut off is none that was expected.
    reports, exempt = search(CLEAN + forced_unload().rsplit("[", 2)[0])
    assert len(reports) == 2 and exempt == 0


@pytest.mark.parametrize("text, status", [
    (CLEAN, 0),
    (CLEAN + "[   10.000000] " + FAULTS[0] + "\n", 1),
    (CLEAN.removeprefix(BEGINNING), 1),
    ("", 1),
])
def test_exit_status(text, status, monkeypatch, capsys):
    monkeypatch.setattr("sys.stdin", io.StringIO(text))
    assert kernel_log.main() == status
    assert "kernel log: " in capsys.readouterr().out
