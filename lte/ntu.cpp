#include "lte/ntu.h"

#include <cstring>
#include <mutex>

namespace fsu::lte {
namespace {

std::mutex texts_lock;
NtuTexts texts{};

char* field_of(NtuTexts& t, NtuText field) {
  switch (field) {
    case NtuText::lteip: return t.lteip;
    case NtuText::lteip1: return t.lteip1;
    case NtuText::model: return t.model;
    case NtuText::atdev: return t.atdev;
    case NtuText::csq: return t.csq;
    case NtuText::cimi: return t.cimi;
    case NtuText::imei: return t.imei;
    case NtuText::nettype: return t.nettype;
  }
  return t.lteip;
}

}  // namespace

Ntu NTU;

NtuTexts ntu_texts() {
  std::lock_guard<std::mutex> hold(texts_lock);
  return texts;
}

void ntu_text(NtuText field, char (&out)[kNtuTextSize]) {
  std::lock_guard<std::mutex> hold(texts_lock);
  std::memcpy(out, field_of(texts, field), kNtuTextSize);
}

void ntu_set_text(NtuText field, const char* text) {
  char value[kNtuTextSize] = {};
  if (text != nullptr) std::strncpy(value, text, kNtuTextSize - 1);
  std::lock_guard<std::mutex> hold(texts_lock);
  std::memcpy(field_of(texts, field), value, kNtuTextSize);
}

bool ntu_online() {
  char lteip[kNtuTextSize];
  ntu_text(NtuText::lteip, lteip);
  return std::strlen(lteip) >= 6 && NTU.noservice.load() < 2;
}

void ntu_clear() {
  for (std::atomic<int>* word :
       {&NTU.pppdstart, &NTU.pppdend, &NTU.softreboot, &NTU.hardreboot, &NTU.attimeout,
        &NTU.ltestart, &NTU.mode_id, &NTU.CardStat, &NTU.siminfo, &NTU.simstat, &NTU.srvstat,
        &NTU.srvdomain, &NTU.noservice})
    word->store(0);
  std::lock_guard<std::mutex> hold(texts_lock);
  texts = NtuTexts{};
}

}  // namespace fsu::lte
