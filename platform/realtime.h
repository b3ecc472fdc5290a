// Marks code of the device period path.
#pragma once

/// On a function that a device calls once per period, directly or through others: it allocates
/// nothing, takes no lock, does not wait, log or throw, and its cost is bounded by the period's
/// samples. The annotation generates no code; a test arms a guard on the device thread.
#define TAVISTRO_REALTIME
