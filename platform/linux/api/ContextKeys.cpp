#include <platform/context_manager.h>

const char *const CONTEXT_HRM_SPO2 = "hrm/spo2";
const char *const CONTEXT_HRM_HEART_RATE = "hrm/heart_rate";
const char *const CONTEXT_HRM_PEAK_TO_PEAK = "hrm/peak_to_peak";
const char *const CONTEXT_MOTION_ACTION = "motion/action";
const char *const CONTEXT_ACTIVITY_STATUS = "activity/status";
const char *const CONTEXT_ACTIVITY_ACCURACY = "activity/accuracy";
const char *const CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER = "activity/notification_filter";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT = "pedometer/total_steps";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE = "pedometer/distance";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_CALORIE = "pedometer/calories";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT = "pedometer/walk_steps";
const char *const CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT = "pedometer/run_steps";
const char *const CONTEXT_PEDOMETER_SPEED = "pedometer/speed";
const char *const CONTEXT_PEDOMETER_GENDER = "pedometer/gender";
const char *const CONTEXT_PEDOMETER_HEIGHT = "pedometer/height";
const char *const CONTEXT_PEDOMETER_WEIGHT = "pedometer/weight";
