#pragma once
// What every fuzz target shares: a private world to run in, and a way back to
// a fresh process between inputs.

// Once, in LLVMFuzzerInitialize: private mount and network namespaces (as
// root) with /run and /dev/shm of their own, so nothing an input makes
// (resolution files, shared memory, datagrams) reaches the host. Ends the
// process when it cannot isolate itself. (The service's diagnostics go to
// standard error: libFuzzer's -close_fd_mask=2 silences them.)
void EnterFuzzWorld();

// Every process-wide record of the service back to a fresh start (shared
// memory mappings stay): the camera state, reassembly, sequence counters,
// the decoder's tracking memory, the interpreter's modes, the remote
// control's edges, the video writer.
void ResetServiceRecords();
