// Calls of livekit-server-sdk that start a composite of a room and relay it to a CDN address. The client uses Node's
// fetch, which keeps connections alive.

import assert from 'node:assert/strict';
import { EgressClient, EgressStatus, StreamOutput, StreamProtocol } from 'livekit-server-sdk';

import { measure } from './measure.mjs';

await measure((address) => {
  const client = new EgressClient(address, 'key-of-the-application', 'secret-of-the-application-32-bytes');
  const output = new StreamOutput({ protocol: StreamProtocol.RTMP, urls: ['rtmp://cdn.example/live/stream'] });
  return async () => {
    const egress = await client.startRoomCompositeEgress('4711', output, { layout: 'grid' });
    assert.equal(egress.egressId, 'EG_k3pq8WzXo2Tb');
    assert.equal(egress.status, EgressStatus.EGRESS_STARTING);
    assert.equal(egress.streamResults.length, 1);
  };
});
