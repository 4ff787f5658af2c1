// The one word that the daemon says to a forwarding plane that follows the store by itself.
#ifndef PLATFORM_DEV_SYNC_H
#define PLATFORM_DEV_SYNC_H

extern "C" {

// Called just before the daemon's mutex is given back: the store may have changed since it was taken.
// Which lists, the redirect view knows. A platform whose device is driven by records alone does
// nothing. Must be cheap when nothing changed. Lock: held by caller (the daemon's mutex)
void devSyncStore(void);
}

#endif
