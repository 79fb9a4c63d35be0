#include <orvo/cloudservice.h>
#include <orvo/paths.h>

#include <string>

#include "platform_files.h"

int ORVOCloudServiceActionHandler(int action) {
    // Only actions the cloud-service layer knows are handed over; anything
    // else is a caller's mistake and is refused without a record.
    if (action != ORVO_CLOUD_ACTION_REFRESH && action != ORVO_CLOUD_ACTION_APIKEY_EXPIRED) {
        return -1;
    }
    return orvo::platform::AppendLine(ORVO::Paths::kCloudServiceLog,
                                      "action " + std::to_string(action))
               ? 0
               : -1;
}
