#include "runtime/AgentGlobals.h"

ThreadPool* threadPool = nullptr;
RefreshThread* refreshThread = nullptr;
int impatientCollectorTimeout = 0;
