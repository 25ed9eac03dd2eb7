#include "platform/Crypto.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QUuid>

namespace vt {

std::string sha256Hex(std::string_view bytes) {
  const auto digest = QCryptographicHash::hash(QByteArrayView(bytes.data(), static_cast<qsizetype>(bytes.size())),
                                               QCryptographicHash::Sha256);
  return digest.toHex().toStdString();
}

std::string newUuid() { return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toStdString(); }

}  // namespace vt
