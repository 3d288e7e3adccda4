#pragma once

#include <QSslConfiguration>

// The server's TLS setup from the certificate and key in the resources.
QSslConfiguration LoadTlsConfiguration();
