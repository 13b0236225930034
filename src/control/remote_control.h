#pragma once

// Starts the remote-control thread.
void StartRemoteControl();
