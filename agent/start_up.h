// The process: its log, its pid file, its client, its second thread, then the main loop.
#pragma once

// Runs the agent on the calling thread, which becomes the main thread. Never returns; throws what escapes the
// main loop.
void run_agent();
