// Makes one system call of the cgroup layer fail: write and mkdirat are wrapped at link time.
#pragma once

struct FailingCalls {
    int writeNumber = 0;  ///< the n-th write from now fails, 0: none
    int writeError = 0;   ///< errno of it; 0: it reports one byte less than it was given
    int mkdirError = 0;   ///< every mkdirat fails, 0: none
    int writes = 0;       ///< counted
    int inARow = 1;       ///< so many writes fail from the n-th on
};

extern FailingCalls g_failing;
