// Captured UPnP heads shared by the head-reading benchmarks: a SOAP
// request, an M-SEARCH, and a 200 response with ten header lines.
#ifndef TN_BENCH_BENCH_HEADS_H
#define TN_BENCH_BENCH_HEADS_H

#include <string>

namespace tn_bench {

inline const std::string soap_request =
    "POST /ctl/ContentDir HTTP/1.1\r\n"
    "Host: 10.77.0.1:8200\r\n"
    "Content-Type: text/xml; charset=\"utf-8\"\r\n"
    "SOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\n"
    "User-Agent: Linux/6 UPnP/1.0 tn-interop/0.1\r\n"
    "Content-Length: 438\r\n"
    "Connection: close\r\n"
    "\r\n";

inline const std::string m_search =
    "M-SEARCH * HTTP/1.1\r\n"
    "HOST: 239.255.255.250:1900\r\n"
    "MAN: \"ssdp:discover\"\r\n"
    "MX: 1\r\n"
    "ST: urn:schemas-upnp-org:device:MediaServer:1\r\n"
    "USER-AGENT: Linux/6 UPnP/1.0 tn-interop/0.1\r\n"
    "\r\n";

inline const std::string response =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: text/xml; charset=\"utf-8\"\r\n"
    "Connection: close\r\n"
    "Content-Length: 1152\r\n"
    "Server: Debian DLNADOC/1.50 UPnP/1.0 MiniDLNA/1.3.0\r\n"
    "Date: Mon, 23 Nov 2026 02:53:12 GMT\r\n"
    "EXT:\r\n"
    "realTimeInfo.dlna.org: DLNA.ORG_TLAG=*\r\n"
    "transferMode.dlna.org: Streaming\r\n"
    "Accept-Ranges: bytes\r\n"
    "contentFeatures.dlna.org: "
    "DLNA.ORG_OP=01;DLNA.ORG_CI=0;DLNA.ORG_FLAGS="
    "01700000000000000000000000000000\r\n"
    "\r\n";

} // namespace tn_bench

#endif
