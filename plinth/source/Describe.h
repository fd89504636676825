// Descriptions of container elements, through the container's description callback.
#ifndef PLINTH_DESCRIBE_H
#define PLINTH_DESCRIBE_H

#include "Internal.h"

#include <cstdio>

namespace Plinth {

inline void AppendDescription (UnitBuffer & text, void const * value, PLCopyDescriptionCallBack describe)
{
    if (describe == nullptr) {
        char address [32];
        std::snprintf (address, sizeof address, "<%p>", value);
        text.AppendASCII (address);
        return;
    }
    PLStringRef description = describe (value);
    if (description == nullptr)
        text.Fail ();
    text.AppendString (description);
    PLRelease (description);
}

}

#endif
