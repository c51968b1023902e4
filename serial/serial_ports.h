// The sixteen serial resources on top of the UART driver and the extension links: opening the
// ports at start-up, their line parameters, where writes go and where received bytes come
// from, and the reader threads of the main-board ports and the positioning receiver.
#pragma once

#include <cstdint>

namespace fsu::serial {

// Creates the seven UART slots at 115200 8N1, once.
void M_COM_INIT();
// Applies API line values (baud, data bits, stop bits 1/2, parity 0/1/2) to a UART slot;
// returns the low byte of the driver's code, 255 for a slot above 7.
std::uint8_t M_BAU_SET_COM(std::uint32_t slot, int baud, int data_bits, int stop_bits, int parity);
// Applies the stored parameters of resource index k (0 to 15); -1 for k above 15.
int COM_BAU_INIT(int k);
// Every resource to 9600 8N1, applied.
void BSP_BAU_INIT();
// Starts the serial threads, once.
void FSU_COM_READ_THREAD_START();

// Thread bodies (argument: pointer to the int32 index or slot) and their one-pass forms.
void* M_COM_READ_THREAD(void* arg);
void* ENV_COM_READ_THREAD(void* arg);
// One 100 ms pass of main-board reader k (0 to 3): reads the UART into record k.
void m_com_read_pass(int k);
// One pass of the positioning receiver's reader: reads slot 6 into record 15.
void env_com_read_pass();

// Routes by resource id (1 to 16).
int ReadUart_FromResourceName(int id, std::uint8_t* buf, int max, int wait_ms);
int WriteUart_FromResourceName(int id, const std::uint8_t* buf, int len);
int SetUartParam_FromResourceName(int id, int baud, int data_bits, int stop_bits, int parity);
int GetUartParam_FromResourceName(int id, int* baud, int* data_bits, int* stop_bits, int* parity);

}  // namespace fsu::serial
