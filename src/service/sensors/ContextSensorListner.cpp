#include "ContextSensorListner.h"

namespace Parvane {

void ContextSensorListner::OnSensorDataChanged(std::shared_ptr<SensorData> /*data*/) {}

} // namespace Parvane
