// Everything a client needs: the library's public headers and the platform headers they
// rely on (meshes, buffers, streams, objects, log, Wm4 types).
#ifndef KXCOMMONADDONS_H
#define KXCOMMONADDONS_H

#include "Wm4Foundation.h"

#include "kxBaseStream.h"
#include "kxCapturingLog.h"
#include "kxIndexBuffer.h"
#include "kxLog.h"
#include "kxObject.h"
#include "kxPointer.h"
#include "kxRtti.h"
#include "kxStringUtils.h"
#include "kxSystemUtils.h"
#include "kxThread.h"
#include "kxTriMesh.h"
#include "kxVertexBuffer.h"

#include "kxBBox.h"
#include "kxBVHContainers.h"
#include "kxCancelInterface.h"
#include "kxCommonAddOnsVersion.h"
#include "kxGenericBVH.h"
#include "kxGenericBVH2D.h"
#include "kxGenericBVHBuilder.h"
#include "kxGenericTransformation.h"
#include "kxHighQualityBVHBuilder.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLogObject.h"
#include "kxQBVH.h"
#include "kxQBVHStatistics.h"
#include "kxTSharedArray.h"

#endif
