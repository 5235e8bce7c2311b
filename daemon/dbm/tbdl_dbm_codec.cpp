/* Stored form of the database records and keys. In memory the records'
 * numeric fields are in host order; stored, they are big-endian, so that
 * the sort words (bundle number, tunnel number) order the lists
 * numerically. */
#include <arpa/inet.h>
#include <string.h>

#include "tbdl_dbm.h"

void TBDL_DBM_EncBnd(const TBDL_DBM_BND_S *pstRec, TBDL_DBM_BND_S *pstStored)
{
    TBDL_DBM_BND_S stOut = *pstRec;
    stOut.stAddr.usFamily = htons(pstRec->stAddr.usFamily);
    stOut.uiBndNum = htonl(pstRec->uiBndNum);
    stOut.usResv1 = 0;
    stOut.usVrfIndex = htons(pstRec->usVrfIndex);
    stOut.usResv2 = 0;
    *pstStored = stOut;
}

void TBDL_DBM_DecBnd(const TBDL_DBM_BND_S *pstStored, TBDL_DBM_BND_S *pstRec)
{
    TBDL_DBM_BND_S stOut = *pstStored;
    stOut.stAddr.usFamily = ntohs(pstStored->stAddr.usFamily);
    stOut.uiBndNum = ntohl(pstStored->uiBndNum);
    stOut.usVrfIndex = ntohs(pstStored->usVrfIndex);
    *pstRec = stOut;
}

void TBDL_DBM_EncMemb(const TBDL_MEMB_CFG_S *pstCfg, TBDL_DBM_MEMB_S *pstStored)
{
    memset(pstStored, 0, sizeof(*pstStored));
    pstStored->uiTnlNum = htonl(pstCfg->uiTnlNum);
    pstStored->usWeight = htons(pstCfg->usWeight);
    pstStored->ucRole = pstCfg->ucRole;
    pstStored->usVrfIndex = htons(pstCfg->usVrfIndex);
}

void TBDL_DBM_DecMemb(const TBDL_DBM_MEMB_S *pstStored, TBDL_MEMB_CFG_S *pstCfg)
{
    static_assert(sizeof(*pstStored) == sizeof(*pstCfg), "stored member is a member record");
    memcpy(pstCfg, pstStored, sizeof(*pstCfg));
    pstCfg->uiTnlNum = ntohl(pstStored->uiTnlNum);
    pstCfg->usWeight = ntohs(pstStored->usWeight);
    pstCfg->usVrfIndex = ntohs(pstStored->usVrfIndex);
}

void TBDL_DBM_MembKey(u32 uiBndNum, u8 aucKey[TBDL_DBM_KEY_MEMB_LEN])
{
    u32 uiBndNumBe = htonl(uiBndNum);
    aucKey[0] = TBDL_DBM_KEY_MEMB;
    memcpy(&aucKey[1], &uiBndNumBe, sizeof(uiBndNumBe));
}

u32 TBDL_DBM_MembKeyBndNum(const void *pvKey, u32 uiKeyLen)
{
    u8 aucKey[TBDL_DBM_KEY_MEMB_LEN];
    memset(aucKey, 0, sizeof(aucKey));
    if (pvKey != NULL) {
        memcpy(aucKey, pvKey, (uiKeyLen < sizeof(aucKey)) ? uiKeyLen : sizeof(aucKey));
    }
    return ((u32)aucKey[1] << 24) | ((u32)aucKey[2] << 16) | ((u32)aucKey[3] << 8) | aucKey[4];
}
