// Calls of @aws-sdk/client-ivs-realtime that start a composition of a stage and send it to a channel. The client uses
// Node's https with an agent that keeps connections alive.

import assert from 'node:assert/strict';
import { IVSRealTimeClient, StartCompositionCommand } from '@aws-sdk/client-ivs-realtime';

import { measure } from './measure.mjs';

const ARN = 'arn:aws:ivs:eu-central-1:123456789012';

await measure((address) => {
  const client = new IVSRealTimeClient({
    endpoint: address,
    region: 'eu-central-1',
    credentials: { accessKeyId: 'key-of-the-application', secretAccessKey: 'secret-of-the-application' },
  });
  return async () => {
    const { composition } = await client.send(
      new StartCompositionCommand({
        stageArn: `${ARN}:stage/w8Ns3LdVb6Yc`,
        layout: { grid: { videoAspectRatio: 'VIDEO', videoFillMode: 'COVER', gridGap: 2 } },
        destinations: [
          {
            channel: {
              channelArn: `${ARN}:channel/h2Jf9TgKq5Pe`,
              encoderConfigurationArn: `${ARN}:encoder-configuration/z7Bm1XcVn4Ru`,
            },
          },
        ],
      }),
    );
    assert.equal(composition.arn, `${ARN}:composition/mXk4Qp7RtZ2a`);
    assert.equal(composition.state, 'STARTING');
    assert.equal(composition.startTime.getTime(), Date.UTC(2024, 0, 31, 12));
    assert.equal(composition.destinations.length, 1);
  };
});
