#pragma once

// Camera and gimbal commands. Each builds its frame from a constant template
// and sends it with SendCameraPacket.

// Re-arms subject tracking on the camera.
void TrackingStart();
