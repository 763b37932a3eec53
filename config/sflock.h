#pragma once

// Seconds a property-list lock is waited for; 0 tries once without waiting
// (a negative value counts as 0). Read at every lock.
extern int sf_locktimer;

// Takes the record lock on byte 0 of fd: exclusive for mode 2, shared
// otherwise. The wait borrows the process alarm and the SIGALRM handler and
// gives both back: an alarm armed before is re-armed with what it had left
// less the whole wait time, at least 1 second. 0, or -1 (not granted in time,
// or the lock call failed).
int sf_lockgrab(int fd, int mode);
