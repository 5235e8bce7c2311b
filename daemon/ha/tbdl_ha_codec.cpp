/* Wire form of the HA backup payloads. The payloads are the kernel
 * payloads; on the HA channel their numeric fields travel in network order,
 * while the address bytes after the family travel as they are. */
#include <arpa/inet.h>
#include <string.h>

#include "ha/tbdl_ha_priv.h"

static_assert(offsetof(TBDL_KBND_S, usResv) == 34, "zero bytes at 34");

void tbdl_ha_BndToWire(const TBDL_KBND_S *pstHost, TBDL_KBND_S *pstWire)
{
    memcpy(pstWire, pstHost, sizeof(*pstWire));
    pstWire->stAddr.usFamily = htons(pstHost->stAddr.usFamily);
    pstWire->uiIfIndex = htonl(pstHost->uiIfIndex);
    pstWire->uiTnlMode = htonl(pstHost->uiTnlMode);
    pstWire->uiState = htonl(pstHost->uiState);
    pstWire->usVrfIndex = htons(pstHost->usVrfIndex);
    pstWire->usResv = 0;
}

void tbdl_ha_BndToHost(TBDL_KBND_S *pstPayload)
{
    pstPayload->stAddr.usFamily = ntohs(pstPayload->stAddr.usFamily);
    pstPayload->uiIfIndex = ntohl(pstPayload->uiIfIndex);
    pstPayload->uiTnlMode = ntohl(pstPayload->uiTnlMode);
    pstPayload->uiState = ntohl(pstPayload->uiState);
    pstPayload->usVrfIndex = ntohs(pstPayload->usVrfIndex);
}

void tbdl_ha_MembToWire(const TBDL_KMEMB_S *pstHost, TBDL_KMEMB_S *pstWire)
{
    pstWire->uiBndIfIndex = htonl(pstHost->uiBndIfIndex);
    pstWire->uiMembIfIndex = htonl(pstHost->uiMembIfIndex);
}

void tbdl_ha_MembToHost(TBDL_KMEMB_S *pstPayload)
{
    pstPayload->uiBndIfIndex = ntohl(pstPayload->uiBndIfIndex);
    pstPayload->uiMembIfIndex = ntohl(pstPayload->uiMembIfIndex);
}
