#include "ActivityInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
// The order is that of construction at load, and in reverse of destruction at unload.
::android::Mutex ActivityInterface::mListMutex;
::android::Mutex ActivityInterface::eventMutex;
::android::Mutex ActivityInterface::sLastEventLock;
ClientTable<V1_1::IActivityChangedCallback> ActivityInterface::mClientVectorV1_1;
ClientTable<V1_0::IActivityChangedCallback> ActivityInterface::mClientVectorV1_0;
LastEventTable ActivityInterface::mLastActivityEvent;
EnableRequestTable ActivityInterface::mEventData;
FirstReportTable ActivityInterface::firstReport;
ClientList ActivityInterface::packageNames;
bool ActivityInterface::sInterfaceExists = false;
const activity_callbacks ActivityInterface::sActCb = {ActChangedCb, ActExtendChangedCb};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
