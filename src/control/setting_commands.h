#pragma once
// Setting commands: set one camera setting to a named value, and step a
// setting to the next or previous entry of its ordered name table.
//
// The set commands take the value as the main application writes it, log
// their line on standard error, look up the camera code in the value tables
// (control/value_tables.h) and send one or two frames built from constant
// command templates through SendCameraPacket. What a value in no table row
// does is the table's rule (fallback code, or nothing sent).
//
// The step commands read the setting's current text from CameraState (as the
// camera last reported it), take the neighbour in the name table with
// wrap-around (a text in no entry counts as entry 0), and call the set
// command with it. They keep no memory of their own.
//
// Callers: the JSON command interpreter (command thread) and the remote
// control (its thread). CameraState is read and wb_temp_set written under
// camera_state_lock, never held while logging or sending.

// Set to a value.
void CameraSetExposureMode(const char* mode);  // "auto", "shutter", "aperture", "manual"
void CameraSetShutter(const char* speed);      // "1/240", "8\"", ...
void CameraSetAperture(const char* f_number);  // "2.8"
void CameraSetIso(const char* iso);            // "100" .. "6400"; others: automatic
void CameraSetEv(const char* ev);              // "-3.0" .. "+3.0" in thirds
// mode "auto", "sunny", "cloudy", "incandescent", "neon", "custom"; the
// temperature (kelvin, as text, may be null) is used by "custom" only.
void CameraSetWhiteBalance(const char* mode, const char* temperature);
void CameraSetColor(const char* color);        // "d-clike", anything else: none
void CameraSetVideoResolution(int width, int height, int fps);
void CameraSetAspectRatio(const char* ratio);  // "4:3", "16:9"
void CameraSetSensorResolution(const char* megapixels);  // "16", "64"
void CameraSetShotMode(const char* format);    // "raw", "jpg", "jpg+raw"
void CameraSetAntiFlicker(const char* hertz);  // "50", "60", anything else: auto
void CameraSetVideoStandard(const char* standard);  // "PAL", "NTSC"

// Step to the next / previous value.
void CameraNextExposureMode();
void CameraPrevExposureMode();
void CameraNextShutter();
void CameraPrevShutter();
void CameraNextIso();
void CameraPrevIso();
void CameraNextEv();
void CameraPrevEv();
void CameraNextWhiteBalance();
void CameraPrevWhiteBalance();
void CameraNextColor();
void CameraPrevColor();
