// Public calls of the positioning family that the web requests use. Declared here until the
// public header carries them.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

int BSP_GET_GPS_INFO(char *buf);
int BSP_GET_GPS_dB_INFO(char *buf);

#ifdef __cplusplus
}
#endif
