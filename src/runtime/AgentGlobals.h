#pragma once

// The process-wide objects that start-up creates and the table servers use.
//
// Set by load_agents on the framework's thread before any table request arrives and
// cleared again by fwTerminate, so readers need no lock.

class RefreshThread;
class ThreadPool;

// The collection pool; null when the agent runs without one.
extern ThreadPool* threadPool;
// The periodic collector; null when nothing is collected on a timer.
extern RefreshThread* refreshThread;
// Seconds a sample waits for a running collection before it answers with the older
// rows; 0 = wait until the collection ends.
extern int impatientCollectorTimeout;
