#pragma once

/// Keys and event names of the notifications that a device pushes, as they stand in their JSON. Names compare exactly,
/// letter case included.
namespace Uniview::events
{
inline constexpr const char* alarmInfo = "AlarmInfo";    ///< member of the notification: the event, an object
inline constexpr const char* alarmType = "AlarmType";    ///< the kind of event: a text, one of the names below
inline constexpr const char* alarmSrcId = "AlarmSrcID";  ///< the source, an integer; alarm inputs count from 1
inline constexpr const char* sourceId = "SourceID";  ///< the same in other firmware, and stronger when both are there
inline constexpr const char* alarmSeq = "AlarmSeq";  ///< an integer; the device counts its notifications with it
inline constexpr const char* alarmLevel = "AlarmLevel";
inline constexpr const char* alarmConfig = "AlarmConfig";
inline constexpr const char* timeStamp = "TimeStamp";  ///< the time of the event: Unix seconds, a number or a text

// ...On and ...Off are the beginning and the end of one alarm condition.
inline constexpr const char* abnormalAudioOn = "AbnormalAudioOn";
inline constexpr const char* abnormalAudioOff = "AbnormalAudioOff";
inline constexpr const char* lineDetectorCrossed = "LineDetectorCrossed";
inline constexpr const char* crowdDensity = "CrowdDensity";
inline constexpr const char* enterArea = "EnterArea";
inline constexpr const char* objectIsRecognized = "ObjectIsRecognized";
inline constexpr const char* inputAlarmOn = "InputAlarmOn";
inline constexpr const char* inputAlarmOff = "InputAlarmOff";
inline constexpr const char* fieldDetectorObjectsInside = "FieldDetectorObjectsInside";
inline constexpr const char* leaveArea = "LeaveArea";
inline constexpr const char* maskImageAlarmOn = "MaskImageAlarmOn";
inline constexpr const char* maskImageAlarmOff = "MaskImageAlarmOff";
inline constexpr const char* motionAlarmOn = "MotionAlarmOn";
inline constexpr const char* motionAlarmOff = "MotionAlarmOff";
inline constexpr const char* peopleCounting = "PeopleCounting";
inline constexpr const char* thermalTemperatureDetectOff = "ThermalTemperatureDetectOff";
inline constexpr const char* temperatureDetectionAlarm = "TemperatureDetectionAlarm";
}  // namespace Uniview::events
