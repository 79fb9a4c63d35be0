// Cloud service library (liborvocloudservice).
#pragma once

// Action codes.
constexpr int ORVO_CLOUD_ACTION_REFRESH = 1;
constexpr int ORVO_CLOUD_ACTION_APIKEY_EXPIRED = 2;

// Hands an action to the cloud-service layer, which records it in
// Paths::kCloudServiceLog. 0 on success, -1 when it could not be recorded.
int ORVOCloudServiceActionHandler(int action);
