// Public calls of the dial and positioning families that the web requests and the console
// use. Declared here until the public header carries them.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

int DialDial(const char *user, const char *password);
int DialIsOnline(void);
int DialGetStaticInfo(char *buf, int size);
int DialGetDynamicInfo(char *buf, int size);
int BSP_GET_GPS_INFO(char *buf);
int BSP_GET_GPS_dB_INFO(char *buf);

#ifdef __cplusplus
}
#endif
