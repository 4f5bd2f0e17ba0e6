#pragma once
// The catalogue side of component descriptions: which units are installed, and
// their names. Effects are the LV2 plugins of the process's lilv world; the matrix
// mixer is built in. Main thread.

#include <cstdint>
#include <string>
#include <vector>

#include "audio/KyoAudioComponentDescription.h"

// Every installed unit of a type ('aufx', 'aumf', 'aumx'), in the order the
// catalogue gives, each with its name filled in.
std::vector<KyoAudioComponentDescription> KyoComponentDescriptionsOfType(uint32_t type);

// Whether a unit for the description is installed. The type must match unless it
// is 0, as it is for a description rebuilt from a saved "component" blob.
bool KyoComponentIsInstalled(const KyoAudioComponentDescription& description);

// "manufacturer: name" of an installed unit; empty when none is installed.
std::string KyoComponentName(const KyoAudioComponentDescription& description);

// The type of the installed unit of a URI, 0 when none is installed.
uint32_t KyoComponentType(const std::string& uri);
